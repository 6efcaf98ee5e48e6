#pragma once

#include "platform/Cancelled.h"
#include "platform/Task.h"

#include <asio/experimental/as_tuple.hpp>
#include <asio/steady_timer.hpp>
#include <asio/this_coro.hpp>
#include <asio/use_awaitable.hpp>

#include <exception>
#include <utility>

namespace orlinth::platform {

/// Lets one task at a time through a section that waits. Lives on one serial queue; holds no thread.
///
/// Not fair, and for a handful of waiters: each release wakes all of them and one gets through.
class AsyncMutex {
public:
    explicit AsyncMutex(const Executor& queue) : released_(queue, asio::steady_timer::time_point::max()) {}
    AsyncMutex(const AsyncMutex&) = delete;
    AsyncMutex& operator=(const AsyncMutex&) = delete;

    /// The right to be inside; ends with the object. Must be destroyed on the mutex's queue.
    class Guard {
    public:
        explicit Guard(AsyncMutex& mutex) noexcept : mutex_(&mutex) {}
        Guard(Guard&& other) noexcept : mutex_(std::exchange(other.mutex_, nullptr)) {}
        Guard& operator=(Guard&&) = delete;
        ~Guard() {
            if (mutex_ != nullptr) {
                mutex_->held_ = false;
                mutex_->released_.cancel();
            }
        }

    private:
        AsyncMutex* mutex_;
    };

    /// Waits for its turn. The mutex must outlive the guard. @throws Cancelled
    [[nodiscard]] Task<Guard> lock() {
        while (held_) {
            try {
                co_await released_.async_wait(asio::experimental::as_tuple(asio::use_awaitable));
            } catch (const std::exception& error) {
                if (isCancellation(error)) {
                    throw Cancelled(); // the task was cancelled before it came here
                }
                throw;
            }
            const asio::cancellation_state state = co_await asio::this_coro::cancellation_state;
            if (state.cancelled() != asio::cancellation_type::none) {
                throw Cancelled();
            }
        }
        held_ = true;
        co_return Guard(*this);
    }

private:
    asio::steady_timer released_; // a condition variable: never rings, is cancelled at each release
    bool held_ = false;
};

} // namespace orlinth::platform
