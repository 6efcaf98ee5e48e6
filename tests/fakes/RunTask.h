#pragma once

#include "platform/Task.h"

#include <asio/co_spawn.hpp>
#include <asio/io_context.hpp>
#include <gtest/gtest.h>

#include <chrono>
#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>

namespace orlinth::fakes {

/// How long a task may take by the real clock before the test is given up; tests move a fake clock by hand, so this
/// is never what a passing test waits for.
inline constexpr std::chrono::seconds runTaskLimit{60};

/// How long whatever a task leaves behind gets to end by itself, once the task has ended.
inline constexpr std::chrono::seconds runTaskGrace{5};

namespace detail {

template <typename T>
struct RunOutcome {
    std::optional<T> value;
    std::exception_ptr error;
    bool ended = false;
};

template <>
struct RunOutcome<void> {
    std::exception_ptr error;
    bool ended = false;
};

template <typename T>
Task<> runInto(std::shared_ptr<RunOutcome<T>> outcome, Task<T> task) {
    if constexpr (std::is_void_v<T>) {
        co_await std::move(task);
    } else {
        T value = co_await std::move(task);
        outcome->value.emplace(std::move(value));
    }
}

} // namespace detail

/// Runs `context` until `task` has ended and nothing else is pending on it; returns the task's value, or rethrows
/// what escaped from it.
///
/// The test fails if anything (a task, a timer, a wait on a socket) is still there a few seconds after the task's
/// end. The context may be used again afterwards. @throws std::runtime_error where the task does not end at all
template <typename T>
T runTask(asio::io_context& context, Task<T> task) {
    const auto outcome = std::make_shared<detail::RunOutcome<T>>();
    asio::co_spawn(context, detail::runInto<T>(outcome, std::move(task)), [outcome](std::exception_ptr error) {
        outcome->error = std::move(error);
        outcome->ended = true;
    });
    const auto giveUp = std::chrono::steady_clock::now() + runTaskLimit;
    context.restart();
    while (!outcome->ended && context.run_one_until(giveUp) > 0) {
    }
    if (!outcome->ended) {
        throw std::runtime_error(context.stopped() ? "the task waits for something that nobody will bring"
                                                   : "the task does not end");
    }
    context.run_for(runTaskGrace);
    EXPECT_TRUE(context.stopped()) << "the task left something running";
    context.restart();
    if (outcome->error) {
        std::rethrow_exception(outcome->error);
    }
    if constexpr (!std::is_void_v<T>) {
        return std::move(outcome->value).value();
    }
}

} // namespace orlinth::fakes
