#include "platform/Condition.h"

#include "platform/Cancelled.h"

#include <asio/experimental/as_tuple.hpp>
#include <asio/this_coro.hpp>
#include <asio/use_awaitable.hpp>

#include <utility>

namespace orlinth::platform {

Condition::Condition(Executor executor) : executor_(std::move(executor)) {}

// NOLINTNEXTLINE(bugprone-exception-escape): Asio's cancel() may throw by its signature alone
void Condition::changed() noexcept {
    if (timer_) {
        timer_->cancel();
    }
}

/// Until changed() is called. Cancelling the task rings the same bell, so its state is asked afterwards.
Task<> Condition::nextChange() {
    if (!timer_) {
        timer_.emplace(executor_, asio::steady_timer::time_point::max());
    }
    try {
        co_await timer_->async_wait(asio::experimental::as_tuple(asio::use_awaitable));
    } catch (const std::exception& error) {
        throwFromAwait(error);
    }
    const asio::cancellation_state state = co_await asio::this_coro::cancellation_state;
    if (state.cancelled() != asio::cancellation_type::none) {
        throw Cancelled();
    }
}

} // namespace orlinth::platform
