#pragma once

#include "OrlinthCore/SecureChannel/FrameBuffer.h"
#include "base/CaseError.h"
#include "platform/Clock.h"
#include "platform/Network.h"

#include <memory>
#include <optional>

namespace orlinth {

/// Grants the memory of large frames: back-pressure for those who send many of them at once.
class FrameGate {
public:
    virtual ~FrameGate() = default;
    /// Frames, and parts of frames, up to so many bytes need no grant.
    [[nodiscard]] virtual std::size_t freeBytes() const noexcept = 0;
    /// Waits until a frame of `bytes` may be read to its end. On the stream's executor. @throws Cancelled
    [[nodiscard]] virtual Task<> claim(std::size_t bytes) = 0;
};

/// One established stream, carried as whole frames: a 4-byte big-endian length, then so many bytes of body.
///
/// Knows nothing of encryption or message types. Zero-length bodies are legal.
///
/// Ownership: owns the stream; destroying it closes the connection.
/// Threading: every call and every resume happens on the stream's executor. One reader and one writer at a time.
/// After any exception only close() and abort() may follow; they may follow always, more than once.
class WireConnection {
public:
    class Error;

    /// Width of the length prefix.
    static constexpr std::size_t lengthPrefixBytes = FrameBuffer::prefixBytes;
    /// Largest body in either direction: 16 MiB of plaintext, its tag, with room to spare.
    static constexpr std::size_t maxFrameBytes = 0x0100'0040;

    /// `clock` must outlive the connection.
    WireConnection(std::unique_ptr<platform::Stream> connection, platform::Clock& clock);
    ~WireConnection();

    /// How long any single read (a prefix, or a body) may take before the connection is cancelled; absent, the
    /// default, means for ever. Read at the start of each read.
    std::optional<Seconds> idleTimeout;
    /// Asked before a large frame is read; null, the default: every frame is read at once. While it waits, nothing is
    /// read and no time-out runs. Outlives the reads.
    FrameGate* gate = nullptr;

    /// Sends one frame; returns when the system has taken all bytes, not when the peer has read them.
    /// `data` must stay valid until then.
    /// @throws Error::oversize before any byte is sent; Error::underlying if the network fails.
    [[nodiscard]] Task<> sendLengthPrefixed(ByteView data);
    /// The body of the next frame.
    /// @throws Error::oversize if the prefix announces too much, with the body unread; Error::eof if the stream ends
    ///         early; Error::underlying if the network fails or the idle time-out has passed.
    [[nodiscard]] Task<Bytes> receiveLengthPrefixed();

    /// The same two without a copy: the frame lies in `buffer`, which the caller keeps until the call returns.
    [[nodiscard]] Task<> sendFrame(FrameBuffer& buffer);
    /// Fills `buffer` with the next body. Memory is taken as bytes arrive, not as the prefix announces them.
    /// `limit` lowers the largest body accepted here.
    [[nodiscard]] Task<> receiveFrame(FrameBuffer& buffer, std::size_t limit = maxFrameBytes);

    /// How the peer ended the conversation after we had said our last word.
    enum class Farewell {
        closed,   ///< in good order: it has read everything
        brokeOff, ///< with a reset, or before it had taken everything, or the network failed: who knows what it read
        acknowledged, ///< not at all; but its system has taken every byte
        silent        ///< not at all, and some bytes may never have come through
    };
    /// Says that nothing more will be sent, waits until the peer closes, and closes. Waits for at most `limit` in
    /// which nothing of what was sent is acknowledged, so that a slow link may carry what is still in the buffers.
    ///
    /// Closing with unread input makes the kernel send a reset, which can destroy what is still on its way to the
    /// peer; so whatever still comes is read and dropped. Never fails (but with Cancelled, and closes then too).
    /// Zero or less: closes at once, and the peer was silent.
    [[nodiscard]] Task<Farewell> closeAfterFarewell(Seconds limit);

    /// Cancels the connection. Pending and later calls fail.
    void close() noexcept;
    /// The same, and the peer sees a reset: what it has sent was not used.
    void abort() noexcept;
    /// From now on whatever ends the connection (an idle time-out, destruction, the end of the process) is a reset too;
    /// with false, it is an orderly end again. Of a connection that is closed: nothing.
    void resetOnClose(bool resets) noexcept;

    /// Whether the peer has ended its side, or the connection is broken or closed; looks without reading.
    [[nodiscard]] bool hasEnded() const noexcept { return connection_->hasEnded(); }
    /// Returns once that is so; one such wait at once. This outlives the task. @throws platform::Cancelled,
    /// platform::SystemError
    [[nodiscard]] Task<> untilEnded() { return connection_->untilEnded(); }

    [[nodiscard]] std::string remoteEndpoint() const { return connection_->remoteEndpoint(); }

private:
    class IdleWatch;
    class IdleAlarm;

    [[nodiscard]] Task<> sendRaw(ByteView data);
    [[nodiscard]] Task<> receivePrefix(MutableBytes into);
    [[nodiscard]] Task<> receiveBody(FrameBuffer& buffer, std::size_t length);
    [[nodiscard]] Task<> receiveUpTo(FrameBuffer& buffer, std::size_t filled, std::size_t length);
    [[nodiscard]] Task<> readFully(MutableBytes into, bool beginsFrame = false);
    /// Nothing if the peer has not ended it by then.
    [[nodiscard]] Task<std::optional<Farewell>> farewellWithin(Seconds limit);
    [[nodiscard]] Task<Farewell> readToTheEnd();

    std::unique_ptr<platform::Stream> connection_;
    platform::Clock& clock_;
    std::unique_ptr<IdleWatch> idleWatch_; // made at the first read that has a time-out; refers to the stream
};

/// What WireConnection throws.
class WireConnection::Error : public CaseError<WireConnection::Error> {
public:
    enum class Case { underlying, oversize, eof };

    [[nodiscard]] static Error underlying(const std::string& text) {
        return {Case::underlying, "wire I/O error: " + text, 0};
    }
    [[nodiscard]] static Error oversize(std::int64_t length) {
        return {Case::oversize, "wire frame size " + std::to_string(length) + " exceeds cap", length};
    }
    /// `isBetweenFrames`: the stream has ended in good order where a frame could begin.
    [[nodiscard]] static Error eof(bool isBetweenFrames = false) {
        Error error{Case::eof, "wire EOF before expected bytes", 0};
        error.isBetweenFrames_ = isBetweenFrames;
        return error;
    }

    /// The offending length; of oversize only.
    [[nodiscard]] std::int64_t length() const noexcept { return length_; }
    /// Of eof: no frame was torn.
    [[nodiscard]] bool isBetweenFrames() const noexcept { return isBetweenFrames_; }

private:
    Error(Case which, const std::string& description, std::int64_t length)
        : CaseError(which, description), length_(length) {}
    std::int64_t length_;
    bool isBetweenFrames_ = false;
};

} // namespace orlinth
