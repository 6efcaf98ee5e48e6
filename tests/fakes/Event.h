#pragma once

#include "platform/Cancelled.h"
#include "platform/Task.h"

#include <asio/experimental/as_tuple.hpp>
#include <asio/steady_timer.hpp>
#include <asio/use_awaitable.hpp>

namespace orlinth::fakes {

/// Something that tasks of one thread wait for. notify() wakes all who wait now.
class Event {
public:
    explicit Event(const Executor& executor) : timer_(executor, asio::steady_timer::time_point::max()) {}

    /// @throws platform::Cancelled
    [[nodiscard]] Task<> wait() {
        const unsigned before = generation_;
        co_await timer_.async_wait(asio::experimental::as_tuple(asio::use_awaitable));
        if (generation_ == before) {
            throw platform::Cancelled();
        }
    }

    void notify() {
        ++generation_;
        timer_.cancel();
    }

private:
    asio::steady_timer timer_; // a condition variable: never expires, is only cancelled
    unsigned generation_ = 0;
};

} // namespace orlinth::fakes
