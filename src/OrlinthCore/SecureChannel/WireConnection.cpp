#include "OrlinthCore/SecureChannel/WireConnection.h"

#include "base/Endian.h"
#include "platform/Cancelled.h"
#include "platform/Deadline.h"

#include <asio/this_coro.hpp>

#include <algorithm>
#include <array>

namespace orlinth {

namespace {

/// What is committed for a body before any of it has come; beyond it, memory at most doubles what has. Small, because a
/// stranger can make us commit it with four bytes; the frames of a transfer find a buffer that has grown already.
constexpr std::size_t firstStepBytes = 1024;

/// The peer stayed silent until the farewell's deadline. Never leaves this file.
class Silence : public std::exception {};

/// Called in a handler: what the network threw, as our own error; a cancellation as it is.
[[noreturn]] void rethrowAsUnderlying(const std::exception& error) {
    throw WireConnection::Error::underlying(platform::textOfFailure(error));
}

} // namespace

/// Cancels the connection when a read takes longer than the idle time-out.
///
/// An alarm that was set is left alone by the reads that follow: when it rings it looks at the read of that moment, and
/// is set again for the rest of its time. Setting and taking back one for each read would cost more than the reading.
class WireConnection::IdleWatch {
public:
    explicit IdleWatch(WireConnection& wire)
        : clock_(wire.clock_), stream_(*wire.connection_), timer_(clock_.makeTimer(stream_.executor())) {}

    /// A read begins that may take so long.
    void begin(Seconds limit) {
        deadline_ = clock_.now() + limit;
        isReading_ = true;
        if (!isSet_ || deadline_ < ringsAt_) {
            set(limit);
        }
    }
    void end() noexcept { isReading_ = false; }

private:
    void set(Seconds delay) {
        isSet_ = true;
        ringsAt_ = clock_.now() + delay;
        timer_->arm(delay, [this] { ring(); });
    }

    void ring() {
        constexpr Seconds noTime = 1us; // what rounding may make of none
        const Seconds left = deadline_ - clock_.now();
        isSet_ = false;
        if (isReading_ && left > noTime) {
            set(left);
        } else if (isReading_) {
            stream_.cancel();
        }
    }

    platform::Clock& clock_;
    platform::Stream& stream_;
    std::unique_ptr<platform::Timer> timer_;
    platform::Clock::Instant deadline_{}; ///< of the read that is under way
    platform::Clock::Instant ringsAt_{};
    bool isReading_ = false;
    bool isSet_ = false;
};

/// Watches one read.
class WireConnection::IdleAlarm {
public:
    explicit IdleAlarm(WireConnection& wire) {
        if (!wire.idleTimeout) {
            return;
        }
        if (!wire.idleWatch_) {
            wire.idleWatch_ = std::make_unique<IdleWatch>(wire);
        }
        watch_ = wire.idleWatch_.get();
        watch_->begin(*wire.idleTimeout);
    }
    IdleAlarm(const IdleAlarm&) = delete;
    IdleAlarm& operator=(const IdleAlarm&) = delete;
    ~IdleAlarm() {
        if (watch_ != nullptr) {
            watch_->end();
        }
    }

private:
    IdleWatch* watch_ = nullptr;
};

WireConnection::WireConnection(std::unique_ptr<platform::Stream> connection, platform::Clock& clock)
    : connection_(std::move(connection)), clock_(clock) {}

WireConnection::~WireConnection() = default;

Task<> WireConnection::sendLengthPrefixed(ByteView data) {
    if (data.size() > maxFrameBytes) {
        throw Error::oversize(static_cast<std::int64_t>(data.size()));
    }
    FrameBuffer buffer;
    buffer.resizeBody(data.size());
    std::ranges::copy(data, buffer.body().begin());
    co_await sendRaw(buffer.frame());
}

Task<> WireConnection::sendFrame(FrameBuffer& buffer) {
    const std::size_t length = buffer.body().size();
    if (length > maxFrameBytes) {
        throw Error::oversize(static_cast<std::int64_t>(length));
    }
    co_await sendRaw(buffer.frame());
}

Task<Bytes> WireConnection::receiveLengthPrefixed() {
    FrameBuffer buffer;
    co_await receiveFrame(buffer);
    co_return toBytes(buffer.body());
}

Task<> WireConnection::receiveFrame(FrameBuffer& buffer, std::size_t limit) {
    std::array<std::byte, lengthPrefixBytes> prefix{};
    co_await receivePrefix(prefix);
    const std::size_t length = loadBigEndian32(prefix);
    if (length > std::min(limit, maxFrameBytes)) {
        throw Error::oversize(static_cast<std::int64_t>(length));
    }
    buffer.resizeBody(0);
    co_await receiveBody(buffer, length);
}

/// A frame that needs a grant, into a buffer that has no room for it, begins without: what only its prefix promises
/// takes nothing from others.
Task<> WireConnection::receiveBody(FrameBuffer& buffer, std::size_t length) {
    const bool needsGrant = gate != nullptr && length > gate->freeBytes();
    std::size_t filled = 0;
    if (needsGrant && buffer.bodyCapacity() < length) {
        filled = gate->freeBytes();
        co_await receiveUpTo(buffer, 0, filled);
    }
    if (needsGrant) {
        co_await gate->claim(length);
    }
    co_await receiveUpTo(buffer, filled, length);
}

/// One read where the buffer is large enough, as it is once a transfer runs; else several, each for at most as much
/// as has already come, so that a prefix alone takes no memory. The time-out covers them as a whole.
Task<> WireConnection::receiveUpTo(FrameBuffer& buffer, std::size_t filled, std::size_t length) {
    if (filled == length) {
        co_return;
    }
    const IdleAlarm alarm(*this);
    while (filled < length) {
        const std::size_t committed = std::max({firstStepBytes, 2 * filled, buffer.bodyCapacity()});
        buffer.resizeBody(std::min(length, committed));
        const MutableBytes rest = buffer.body().subspan(filled);
        co_await readFully(rest);
        filled += rest.size();
    }
}

Task<> WireConnection::receivePrefix(MutableBytes into) {
    const IdleAlarm alarm(*this);
    co_await readFully(into, true);
}

Task<> WireConnection::readFully(MutableBytes into, bool beginsFrame) {
    std::size_t count = 0;
    try {
        count = co_await connection_->readExact(into);
    } catch (const std::exception& error) {
        rethrowAsUnderlying(error);
    }
    if (count != into.size()) {
        throw Error::eof(beginsFrame && count == 0);
    }
}

Task<> WireConnection::sendRaw(ByteView data) {
    try {
        co_await connection_->writeAll(data);
    } catch (const std::exception& error) {
        rethrowAsUnderlying(error);
    }
}

Task<WireConnection::Farewell> WireConnection::closeAfterFarewell(Seconds limit) {
    struct Closing {
        WireConnection& wire;
        ~Closing() { wire.close(); }
    } const closing{*this};
    connection_->finishWriting();
    if (limit <= 0s) {
        co_return Farewell::silent;
    }
    // Our own end of writing has been acknowledged by then, as a rule: what has not changes slowly, or not any more.
    const Seconds settling = limit / 60;
    std::optional<Farewell> farewell = co_await farewellWithin(settling);
    std::optional<std::int64_t> before = connection_->unacknowledgedBytes();
    for (Seconds wait = limit - settling; !farewell; wait = limit) {
        farewell = co_await farewellWithin(wait);
        const std::optional<std::int64_t> left = connection_->unacknowledgedBytes();
        if (!farewell && (!left || !before || *left >= *before)) {
            farewell = left == 0 ? Farewell::acknowledged : Farewell::silent;
        }
        before = left;
    }
    co_return *farewell;
}

Task<std::optional<WireConnection::Farewell>> WireConnection::farewellWithin(Seconds limit) {
    OneShot<Farewell> outcome;
    co_await platform::settleFirst(outcome, clock_, limit, std::make_exception_ptr(Silence()), readToTheEnd());
    try {
        co_return outcome.take(); // also if we are cancelled just now: the peer has ended it before
    } catch (const Silence&) {
        // the usual case of a peer that says nothing
    }
    const asio::cancellation_state state = co_await asio::this_coro::cancellation_state;
    if (state.cancelled() != asio::cancellation_type::none) {
        throw platform::Cancelled();
    }
    co_return std::nullopt;
}

Task<WireConnection::Farewell> WireConnection::readToTheEnd() {
    constexpr std::size_t atOnce = 4096; // there is nothing to be expected, and there may be many of us
    const auto dropped = std::make_unique_for_overwrite<std::byte[]>(atOnce);
    const MutableBytes into(dropped.get(), atOnce);
    std::size_t count = into.size();
    try {
        while (count == into.size()) {
            count = co_await connection_->readExact(into);
        }
    } catch (const std::exception& error) {
        if (platform::isCancellation(error)) {
            throw;
        }
        co_return Farewell::brokeOff;
    }
    // A peer that has read everything has acknowledged it before it closes; but for our own end, which counts as one.
    co_return connection_->unacknowledgedBytes().value_or(0) > 1 ? Farewell::brokeOff : Farewell::closed;
}

void WireConnection::close() noexcept {
    connection_->cancel();
}

void WireConnection::abort() noexcept {
    connection_->abort();
}

void WireConnection::resetOnClose(bool resets) noexcept {
    connection_->resetOnClose(resets);
}

} // namespace orlinth
