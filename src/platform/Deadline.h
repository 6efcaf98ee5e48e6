#pragma once

#include "base/OneShot.h"
#include "platform/Clock.h"

#include <asio/cancellation_signal.hpp>
#include <asio/this_coro.hpp>

#include <exception>
#include <memory>
#include <utility>

namespace orlinth::platform {

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

/// Runs `work` beside the task that waits for it, so that `cancel` ends the one and not the other. A cancellation from
/// outside ends both.
[[nodiscard]] Task<> runCancellably(std::shared_ptr<asio::cancellation_signal> cancel, Task<> work);

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
    const Executor executor = co_await asio::this_coro::executor;
    const auto cancel = std::make_shared<asio::cancellation_signal>();
    const std::unique_ptr<Timer> alarm = clock.makeTimer(executor);
    alarm->arm(limit, [&outcome, &onTimeout, &cancel] {
        if (outcome.fail(onTimeout)) {
            cancel->emit(asio::cancellation_type::terminal);
        }
    });
    co_await detail::runCancellably(cancel, settle(outcome, std::move(operation)));
}

/// Runs `operation` for at most `limit`, which is more than zero, and returns whether it has ended by itself; if not
/// it was cancelled and waited for. What it throws is thrown. `clock` must outlive the call.
[[nodiscard]] Task<bool> endsWithin(Clock& clock, Seconds limit, Task<> operation);

} // namespace orlinth::platform
