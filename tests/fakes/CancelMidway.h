#pragma once

#include "platform/Cancelled.h"
#include "platform/Spawn.h"

#include <asio/cancellation_signal.hpp>
#include <asio/io_context.hpp>
#include <gtest/gtest.h>

#include <chrono>
#include <optional>

namespace orlinth::fakes {

/// Starts `task`, runs everything that is due until it waits for something, cancels it, and returns what escaped
/// from it (null if it ended well). The test fails if it did not wait, or if anything is left afterwards.
inline std::exception_ptr cancelMidway(asio::io_context& context, Task<> task) {
    asio::cancellation_signal signal;
    std::optional<std::exception_ptr> end;
    context.restart();
    platform::spawn(context.get_executor(), std::move(task), signal.slot(),
                    [&end](std::exception_ptr error) { end = std::move(error); });
    context.poll();
    EXPECT_FALSE(end.has_value()) << "the task ended before it was cancelled";
    signal.emit(asio::cancellation_type::terminal);
    context.restart();
    context.run_for(std::chrono::seconds(5));
    EXPECT_TRUE(context.stopped()) << "the task left something running";
    context.restart();
    if (!end) {
        throw std::runtime_error("the task does not end when it is cancelled");
    }
    return *end;
}

/// Checks that this is a cancellation: platform::Cancelled, or Asio's error code.
inline void expectCancellation(const std::exception_ptr& error) {
    ASSERT_TRUE(error);
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& failure) {
        EXPECT_TRUE(platform::isCancellation(failure)) << failure.what();
    }
}

/// Whether this is platform::Cancelled itself, not Asio's error code.
inline bool isCancelled(const std::exception_ptr& error) {
    try {
        if (error) {
            std::rethrow_exception(error);
        }
    } catch (const platform::Cancelled&) {
        return true;
    } catch (...) {
        return false;
    }
    return false;
}

} // namespace orlinth::fakes
