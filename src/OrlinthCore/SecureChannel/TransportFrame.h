#pragma once

#include "OrlinthCore/SecureChannel/FrameBuffer.h"
#include "OrlinthCore/SecureChannel/NoiseXX.h"
#include "base/ByteOffset.h"
#include "base/CaseError.h"
#include "base/Json.h"
#include "platform/WorkQueues.h"

#include <variant>

namespace orlinth {

/// One control message between computer and phone: a flat JSON object whose "type" names it.
class TransportMessage {
public:
    /// Longest transfer id that either side takes, bytes. Ours have 36; a longer one is a protocol violation.
    static constexpr std::size_t maxTransferIdBytes = 256;

    struct FileOffer {
        std::string name;  ///< file name as the sender knows it; not to be trusted as a path
        std::int64_t size; ///< bytes
        std::string mime;
        std::string transfer_id; ///< opaque to the receiver; stays the same when the sender tries again
        bool operator==(const FileOffer&) const = default;
    };
    struct Resume {
        std::string transfer_id;
        ByteOffset accepted_offset; ///< up to where the receiver already holds the file
        bool operator==(const Resume&) const = default;
    };
    struct TokenUpdate {
        std::string peer_fcm_token;
        bool operator==(const TokenUpdate&) const = default;
    };
    struct Clipboard {
        std::string text;
        std::string mime; ///< "text/plain" where a message does not say
        bool operator==(const Clipboard&) const = default;
    };
    struct SetName {
        std::string name;
        bool operator==(const SetName&) const = default;
    };
    struct NameUpdate {
        std::string name;
        bool operator==(const NameUpdate&) const = default;
    };
    struct Done {
        bool operator==(const Done&) const = default;
    };
    struct Unpair {
        bool operator==(const Unpair&) const = default;
    };
    struct Decline {
        bool operator==(const Decline&) const = default;
    };
    using Value = std::variant<FileOffer, Resume, TokenUpdate, Clipboard, SetName, NameUpdate, Done, Unpair, Decline>;

    /// The discriminators, as "type" spells them.
    enum class Tag { FileOffer, Resume, Done, TokenUpdate, Clipboard, SetName, NameUpdate, Unpair, Decline };

    /// Every key that a message may have in JSON.
    struct CodingKeys {
        static constexpr const char* type = "type";
        static constexpr const char* name = "name";
        static constexpr const char* size = "size";
        static constexpr const char* mime = "mime";
        static constexpr const char* transfer_id = "transfer_id";
        static constexpr const char* accepted_offset = "accepted_offset";
        static constexpr const char* peer_fcm_token = "peer_fcm_token";
        static constexpr const char* text = "text";
    };

    template <typename Row>
        requires std::constructible_from<Value, Row>
    TransportMessage(Row row) : value_(std::move(row)) {} // NOLINT(google-explicit-constructor): a row is a message

    [[nodiscard]] static TransportMessage fileOffer(std::string name, std::int64_t size, std::string mime,
                                                    std::string transfer_id);
    [[nodiscard]] static TransportMessage resume(std::string transfer_id, ByteOffset accepted_offset);
    [[nodiscard]] static TransportMessage tokenUpdate(std::string peer_fcm_token);
    [[nodiscard]] static TransportMessage clipboard(std::string text, std::string mime);
    [[nodiscard]] static TransportMessage setName(std::string name);
    [[nodiscard]] static TransportMessage nameUpdate(std::string name);
    [[nodiscard]] static TransportMessage done();
    [[nodiscard]] static TransportMessage unpair();
    [[nodiscard]] static TransportMessage decline();

    /// The row, if the message is of that kind.
    template <typename Row>
    [[nodiscard]] const Row* as() const noexcept {
        return std::get_if<Row>(&value_);
    }
    [[nodiscard]] Tag tag() const noexcept;
    [[nodiscard]] const Value& value() const noexcept { return value_; }

    /// Compact JSON, keys sorted, "/" not escaped.
    [[nodiscard]] std::string toJson() const;
    /// Unknown keys are ignored. @throws JsonError
    [[nodiscard]] static TransportMessage fromJson(ByteView text);

    [[nodiscard]] bool operator==(const TransportMessage&) const = default;

private:
    Value value_;
};

/// "FileOffer" and so on.
[[nodiscard]] std::string_view name(TransportMessage::Tag tag) noexcept;

/// One opened frame, owning its bytes.
using DecodedFrame = std::variant<TransportMessage, Bytes>;
/// One opened frame whose binary data still lies in the buffer it was received in.
using FrameView = std::variant<TransportMessage, MutableBytes>;

/// "FileOffer message", "binary frame of 12 bytes": the kind of a frame for an error text, without its content.
[[nodiscard]] std::string describeFrame(const FrameView& frame);

/// Seals outgoing messages and file data into frame bodies, and opens incoming ones.
///
///     plaintext   | type 1 | body n |     0x01: one TransportMessage as JSON, 0x02: raw bytes
///     on the wire | ChaCha20-Poly1305 ciphertext n + 1 | tag 16 |     no associated data
///
/// Frames open in the order they were sealed. One sending and one receiving task may use a framer at the same time.
class TransportFramer {
public:
    class Error;

    /// Largest plaintext, counting the type byte.
    static constexpr std::size_t maxPlaintextBytes = 16'777'216;
    static constexpr std::byte typeByteJSON{0x01};
    static constexpr std::byte typeByteBinary{0x02};
    /// Of JSON; from here on a message is long. All are shorter, but for texts.
    static constexpr std::size_t longMessageBytes = 64 << 10;
    /// What a frame body costs beyond its payload: type byte and tag.
    static constexpr std::size_t overheadBytes = 1 + CipherState::tagBytes;

    explicit TransportFramer(NoiseTransport session);

    [[nodiscard]] const NoiseTransport& session() const noexcept { return session_; }

    /// One sealed frame body. @throws Error::plaintextTooLarge; nothing is sealed then.
    [[nodiscard]] Bytes encodeJSON(const TransportMessage& message);
    [[nodiscard]] Bytes encodeBinary(ByteView data);
    /// Opens one received frame body. @throws Error::decrypt, malformed, unknownType: all fatal for the connection.
    [[nodiscard]] DecodedFrame decode(ByteView body);

    /// Binary frames without a copy: makes room in `buffer` for `capacity` bytes and returns where they go ...
    [[nodiscard]] static MutableBytes binaryPayload(FrameBuffer& buffer, std::size_t capacity);
    /// ... and seals the first `length` of them where they lie; `buffer` is then ready for WireConnection::sendFrame.
    void sealBinary(FrameBuffer& buffer, std::size_t length);
    /// Opens a body where it lies. Binary data of the result lives as long as `body` stays untouched.
    [[nodiscard]] FrameView decodeInPlace(MutableBytes body);
    /// The same; a long message is read where nobody else waits meanwhile (platform::blocking()). `body` outlives the
    /// task.
    [[nodiscard]] Task<FrameView> decodeInPlace(platform::WorkQueues& queues, MutableBytes body);

private:
    [[nodiscard]] Bytes sealFrame(std::byte type, ByteView body);
    [[nodiscard]] MutableBytes openInPlace(MutableBytes body);

    NoiseTransport session_;
};

/// What TransportFramer throws.
class TransportFramer::Error : public CaseError<TransportFramer::Error> {
public:
    enum class Case { plaintextTooLarge, malformed, decrypt, unknownType };

    /// `length` counts the type byte.
    [[nodiscard]] static Error plaintextTooLarge(std::size_t length);
    [[nodiscard]] static Error malformed(const std::string& text);
    [[nodiscard]] static Error decrypt(const std::string& text);
    [[nodiscard]] static Error unknownType(std::byte type);

    /// Of plaintextTooLarge, counting the type byte; else 0.
    [[nodiscard]] std::size_t length() const noexcept { return length_; }
    /// Of unknownType; else 0.
    [[nodiscard]] std::byte typeByte() const noexcept { return typeByte_; }

private:
    Error(Case which, const std::string& prefix, const std::string& detail = {}) : CaseError(which, prefix, detail) {}
    std::size_t length_ = 0;
    std::byte typeByte_{};
};

} // namespace orlinth
