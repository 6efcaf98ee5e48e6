#pragma once

#include "base/Time.h"
#include "platform/Task.h"

#include <functional>
#include <memory>

namespace orlinth::platform {

/// A one-shot alarm that can be set again and again. Lives on one executor; so do its calls.
class Timer {
public:
    virtual ~Timer() = default;
    /// Calls `action` on the executor `delay` from now, in place of whatever was set before.
    virtual void arm(Seconds delay, std::function<void()> action) = 0;
    /// Takes the alarm back. An action that has not begun will not be called any more, even if its time has come.
    virtual void disarm() noexcept = 0;
};

/// Time: two clocks and two ways to wait. The tests' twin moves by hand.
class Clock {
public:
    /// A moment by the clock that only goes forward. Its start means nothing, so it is for differences.
    using Instant = std::chrono::time_point<Clock, Seconds>;

    virtual ~Clock() = default;
    /// The moment by the wall clock.
    [[nodiscard]] virtual EpochMilliseconds epochMilliseconds() const = 0;
    /// A clock that only goes forward, for durations.
    [[nodiscard]] virtual Instant now() const = 0;
    /// Waits on the caller's executor. Zero or less returns at the next turn.
    /// @throws Cancelled
    [[nodiscard]] virtual Task<> sleep(Seconds duration) = 0;
    /// An alarm on `executor`; destroying it takes the alarm back.
    [[nodiscard]] virtual std::unique_ptr<Timer> makeTimer(Executor executor) = 0;
};

} // namespace orlinth::platform
