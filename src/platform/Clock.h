#pragma once

#include "platform/Task.h"

#include <chrono>
#include <functional>
#include <memory>

namespace orlinth::platform {

/// A one-shot alarm that can be set again and again. Lives on one executor; so do its calls.
class Timer {
public:
    virtual ~Timer() = default;
    /// Calls `action` on the executor `seconds` from now, in place of whatever was set before.
    virtual void arm(double seconds, std::function<void()> action) = 0;
    /// Takes the alarm back. An action that has not begun will not be called any more, even if its time has come.
    virtual void disarm() noexcept = 0;
};

/// Time: two clocks and two ways to wait. The tests' twin moves by hand.
class Clock {
public:
    using Instant = std::chrono::duration<double>; ///< seconds since a start of no meaning

    virtual ~Clock() = default;
    /// Milliseconds since the Unix epoch, by the wall clock.
    [[nodiscard]] virtual std::int64_t epochMilliseconds() const = 0;
    /// A clock that only goes forward, for durations.
    [[nodiscard]] virtual Instant now() const = 0;
    /// Waits on the caller's executor. Zero or less returns at the next turn.
    /// @throws Cancelled
    [[nodiscard]] virtual Task<> sleep(double seconds) = 0;
    /// An alarm on `executor`; destroying it takes the alarm back.
    [[nodiscard]] virtual std::unique_ptr<Timer> makeTimer(Executor executor) = 0;
};

} // namespace orlinth::platform
