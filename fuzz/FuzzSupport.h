#pragma once

#include "Demand.h"
#include "platform/Clock.h"
#include "platform/Network.h"
#include "platform/Spawn.h"
#include "platform/SystemError.h"

#include <asio/io_context.hpp>

#include <algorithm>
#include <functional>
#include <optional>

/// What the fuzz targets of the secure channel share.
namespace orlinth::fuzzing {

/// The fuzzer's bytes, taken from the front; past their end there are only zeros.
class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : bytes_(std::as_bytes(std::span(data, size))) {}

    [[nodiscard]] bool empty() const noexcept { return bytes_.empty(); }
    [[nodiscard]] std::size_t byte() {
        const ByteView one = bytes(1);
        return one.empty() ? 0 : std::to_integer<std::size_t>(one.front());
    }
    [[nodiscard]] std::size_t twoBytes() {
        const std::size_t high = byte();
        return high * 256 + byte();
    }
    [[nodiscard]] ByteView bytes(std::size_t count) {
        const ByteView front = bytes_.first(std::min(count, bytes_.size()));
        bytes_ = bytes_.subspan(front.size());
        return front;
    }
    [[nodiscard]] ByteView rest() { return bytes(bytes_.size()); }

private:
    ByteView bytes_;
};

/// A stream that plays back bytes and then ends, or breaks; what is sent is kept.
class PlaybackStream : public platform::Stream {
public:
    struct State {
        Bytes incoming;
        bool breaks = false; ///< with an error instead of an end
        std::size_t consumed = 0;
        Bytes sent;
        std::function<void()> beforeRead;
    };
    PlaybackStream(Executor executor, State& state) : executor_(std::move(executor)), state_(state) {}

    [[nodiscard]] Task<> writeAll(ByteView data) override {
        state_.sent.insert(state_.sent.end(), data.begin(), data.end());
        co_return;
    }
    [[nodiscard]] Task<std::size_t> readExact(MutableBytes into) override {
        if (state_.beforeRead) {
            state_.beforeRead();
        }
        const std::size_t count = std::min(into.size(), state_.incoming.size() - state_.consumed);
        std::ranges::copy(ByteView(state_.incoming).subspan(state_.consumed, count), into.begin());
        state_.consumed += count;
        if (count < into.size() && state_.breaks) {
            throw platform::SystemError("broken");
        }
        co_return count;
    }
    void finishWriting() noexcept override {}
    void cancel() noexcept override {}
    [[nodiscard]] Executor executor() const override { return executor_; }
    [[nodiscard]] std::string remoteEndpoint() const override { return "fuzz"; }
    [[nodiscard]] std::string localAddress() const override { return "fuzz"; }

private:
    Executor executor_;
    State& state_;
};

/// Nobody waits here.
class NoClock : public platform::Clock {
public:
    [[nodiscard]] EpochMilliseconds epochMilliseconds() const override { return {}; }
    [[nodiscard]] Instant now() const override { return {}; }
    [[nodiscard]] Task<> sleep(Seconds) override { throw std::logic_error("a wait"); }
    [[nodiscard]] std::unique_ptr<platform::Timer> makeTimer(Executor) override { throw std::logic_error("a timer"); }
};

/// Runs a task that never has to wait for anything outside; rethrows what escapes from it.
inline void run(asio::io_context& context, Task<> task) {
    std::optional<std::exception_ptr> end;
    platform::spawn(context.get_executor(), std::move(task), [&end](std::exception_ptr error) { end = error; });
    context.restart();
    context.poll();
    demand(end.has_value(), "the task ends");
    if (*end) {
        std::rethrow_exception(*end);
    }
}

} // namespace orlinth::fuzzing
