#include "platform/linux/LinuxClock.h"

#include "platform/Cancelled.h"
#include "platform/SystemError.h"

#include <asio/redirect_error.hpp>
#include <asio/steady_timer.hpp>
#include <asio/this_coro.hpp>
#include <asio/use_awaitable.hpp>

#include <algorithm>
#include <utility>

namespace orlinth::platform {
namespace {

/// A wait that the timer's nanoseconds can hold, whatever number came; what is not a number waits for nothing.
std::chrono::steady_clock::duration boundedDuration(Seconds wanted) {
    constexpr Seconds longest = std::chrono::days(10 * 365);
    if (!(wanted > 0s)) {
        return std::chrono::steady_clock::duration::zero();
    }
    return std::chrono::ceil<std::chrono::steady_clock::duration>(std::min(wanted, longest));
}

/// The alarm's inside, shared with the wait that is under way: its handler may come to run after the alarm is gone.
struct Alarm {
    explicit Alarm(const Executor& executor) : timer(executor) {}

    asio::steady_timer timer;
    std::uint64_t generation = 0; ///< counts settings, so that a handler that is already queued knows it is stale
    std::function<void()> action;
};

class LinuxTimer final : public Timer {
public:
    explicit LinuxTimer(const Executor& executor) : alarm_(std::make_shared<Alarm>(executor)) {}
    LinuxTimer(const LinuxTimer&) = delete;
    LinuxTimer& operator=(const LinuxTimer&) = delete;
    ~LinuxTimer() override { LinuxTimer::disarm(); }

    void arm(Seconds delay, std::function<void()> action) override {
        const std::uint64_t generation = ++alarm_->generation;
        alarm_->action = std::move(action);
        alarm_->timer.expires_after(boundedDuration(delay));
        alarm_->timer.async_wait([alarm = alarm_, generation](std::error_code code) {
            if (code || alarm->generation != generation) {
                return;
            }
            // moved out first: the action may set the alarm again, or destroy it
            const std::function<void()> due = std::exchange(alarm->action, nullptr);
            due();
        });
    }

    void disarm() noexcept override {
        ++alarm_->generation;
        alarm_->action = nullptr;
        alarm_->timer.cancel();
    }

private:
    std::shared_ptr<Alarm> alarm_;
};

} // namespace

EpochMilliseconds LinuxClock::epochMilliseconds() const {
    return std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now());
}

Clock::Instant LinuxClock::now() const {
    return Instant(std::chrono::steady_clock::now().time_since_epoch());
}

Task<> LinuxClock::sleep(Seconds duration) {
    const Executor executor = co_await asio::this_coro::executor;
    asio::steady_timer timer(executor, boundedDuration(duration));
    std::error_code code;
    try {
        co_await timer.async_wait(asio::redirect_error(asio::use_awaitable, code));
    } catch (const std::exception& error) {
        throwFromAwait(error);
    }
    throwIfFailed(code);
}

std::unique_ptr<Timer> LinuxClock::makeTimer(Executor executor) {
    return std::make_unique<LinuxTimer>(executor);
}

} // namespace orlinth::platform
