#include "orlinth/PairingDoor.h"

#include "base/Endian.h"
#include "platform/Cancelled.h"
#include "platform/SystemError.h"

#include <asio/post.hpp>

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>
#include <utility>

namespace orlinth::host {

namespace {

constexpr std::size_t prefixBytes = 4;
constexpr std::uint32_t handshakeBytes = 32;

using Prefix = std::array<std::byte, prefixBytes>;

/// A connection of which the first bytes have been looked at.
class LookedAtStream final : public platform::Stream {
public:
    LookedAtStream(std::unique_ptr<platform::Stream> stream, Prefix prefix)
        : stream_(std::move(stream)), prefix_(prefix) {}

    [[nodiscard]] Task<> writeAll(ByteView data) override { return stream_->writeAll(data); }
    [[nodiscard]] Task<std::size_t> readExact(MutableBytes into) override {
        const std::size_t again = std::min(into.size(), prefix_.size() - given_);
        std::memcpy(into.data(), prefix_.data() + given_, again);
        given_ += again;
        std::size_t count = again;
        if (again < into.size()) {
            count += co_await stream_->readExact(into.subspan(again));
        }
        co_return count;
    }
    void finishWriting() noexcept override { stream_->finishWriting(); }
    void cancel() noexcept override { stream_->cancel(); }
    void abort() noexcept override { stream_->abort(); }
    void resetOnClose(bool resets) noexcept override { stream_->resetOnClose(resets); }
    void setKeepAlive(const platform::KeepAlive& keepAlive) noexcept override { stream_->setKeepAlive(keepAlive); }
    [[nodiscard]] std::optional<std::int64_t> unacknowledgedBytes() const noexcept override {
        return stream_->unacknowledgedBytes();
    }
    [[nodiscard]] Executor executor() const override { return stream_->executor(); }
    [[nodiscard]] std::string remoteEndpoint() const override { return stream_->remoteEndpoint(); }
    [[nodiscard]] std::string localAddress() const override { return stream_->localAddress(); }

private:
    std::unique_ptr<platform::Stream> stream_;
    Prefix prefix_;
    std::size_t given_ = 0;
};

/// Nothing if there were not so many bytes in time.
Task<std::optional<Prefix>> prefixOf(platform::Stream& stream, platform::Clock& clock) {
    Prefix prefix{};
    const std::unique_ptr<platform::Timer> timer = clock.makeTimer(stream.executor());
    timer->arm(PairingDoor::patience, [&stream] { stream.cancel(); });
    std::size_t count = 0;
    try {
        count = co_await stream.readExact(prefix);
    } catch (const platform::SystemError& error) {
        if (platform::isCancellation(error)) {
            throw;
        }
    }
    timer->disarm();
    co_return count == prefix.size() ? std::optional(prefix) : std::nullopt;
}

} // namespace

Task<std::unique_ptr<platform::Stream>> PairingDoor::accept(Executor executor) {
    for (;;) {
        std::unique_ptr<platform::Stream> stream = co_await port_->accept(executor);
        const std::optional<Prefix> prefix = co_await prefixOf(*stream, host_.system.clock);
        if (prefix && loadBigEndian32(*prefix) != handshakeBytes) {
            co_return std::make_unique<LookedAtStream>(std::move(stream), *prefix);
        }
        if (prefix) { // standard error belongs to the thread of `main`
            asio::post(host_.tasks.executor(), [&output = host_.output, who = stream->remoteEndpoint()] {
                output.message("A paired phone (" + who +
                               ") wanted to deliver something; it can try again afterwards.");
            });
        }
    }
}

} // namespace orlinth::host
