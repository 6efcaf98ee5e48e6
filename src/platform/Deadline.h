#pragma once

#include "base/OneShot.h"
#include "platform/Clock.h"

#include <asio/experimental/awaitable_operators.hpp>

#include <exception>

namespace orlinth::platform {

/// Sleeps; returns whether the time has passed, false if the sleep was cancelled (the other side of a race has won).
[[nodiscard]] Task<bool> sleepUnlessCancelled(Clock& clock, Seconds duration);

/// Runs the operation and settles `outcome` with what comes of it; nothing escapes. `outcome` outlives the task.
template <typename T>
[[nodiscard]] Task<> settle(OneShot<T>& outcome, Task<T> operation) {
    std::exception_ptr error;
    try {
        T value = co_await std::move(operation);
        outcome.resolve(std::move(value));
    } catch (...) {
        error = std::current_exception();
    }
    if (error) {
        outcome.fail(error);
    }
}

namespace detail {

template <typename T>
[[nodiscard]] Task<> settleLate(OneShot<T>& outcome, Clock& clock, Seconds limit, std::exception_ptr error) {
    const bool late = co_await sleepUnlessCancelled(clock, limit);
    if (late) {
        outcome.fail(std::move(error));
    }
}

} // namespace detail

/// Runs `operation` under a deadline: `outcome` is settled by whichever comes first, the operation's result or, after
/// `limit`, `onTimeout`; then the other is cancelled and waited for, so nothing is left behind.
///
/// Zero or less means no deadline. A cancellation from outside settles with the cancelled operation's error.
/// The operation's own error surfaces at once, not at the deadline. `outcome` and `clock` must outlive the call: the
/// caller awaits it in the expression that makes it.
template <typename T>
[[nodiscard]] Task<> settleFirst(OneShot<T>& outcome, Clock& clock, Seconds limit, std::exception_ptr onTimeout,
                                 Task<T> operation) {
    if (limit <= 0s) {
        co_await settle(outcome, std::move(operation));
        co_return;
    }
    using namespace asio::experimental::awaitable_operators;
    Task<> run = settle(outcome, std::move(operation));
    Task<> alarm = detail::settleLate(outcome, clock, limit, std::move(onTimeout));
    co_await (std::move(run) || std::move(alarm));
}

/// Runs `operation` for at most `limit`, which is more than zero, and returns whether it has ended by itself; if not
/// it was cancelled and waited for. What it throws is thrown. `clock` must outlive the call.
[[nodiscard]] Task<bool> endsWithin(Clock& clock, Seconds limit, Task<> operation);

} // namespace orlinth::platform
