#pragma once

#include "platform/Spawn.h"
#include "platform/WorkQueues.h"

#include <optional>
#include <type_traits>
#include <utility>

namespace orlinth::platform {

namespace detail {

template <typename Step>
Task<> takeVoidStep(Step step) {
    step();
    co_return;
}

/// In an optional, because what Asio carries between queues must have a default.
template <typename Step>
Task<std::optional<std::invoke_result_t<Step&>>> takeStep(Step step) {
    co_return std::optional<std::invoke_result_t<Step&>>(step());
}

} // namespace detail

/// Takes a step that may block for long (a flush, a lock, a long message to read) where it holds nobody else up, and
/// returns what it returns. A step that has begun is waited for, also if the caller is cancelled: what it refers to
/// need only live as long as the task. `queues` outlives it.
template <typename Step>
[[nodiscard]] Task<std::invoke_result_t<Step&>> blocking(WorkQueues& queues, Step step) {
    if constexpr (std::is_void_v<std::invoke_result_t<Step&>>) {
        co_await runOn(queues.makeBlockingQueue(), detail::takeVoidStep(std::move(step)));
    } else {
        auto result = co_await runOn(queues.makeBlockingQueue(), detail::takeStep(std::move(step)));
        co_return std::move(*result);
    }
}

} // namespace orlinth::platform
