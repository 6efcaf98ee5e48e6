#pragma once

#include "platform/Log.h"
#include "platform/Task.h"

#include <asio/associated_cancellation_slot.hpp>
#include <asio/async_result.hpp>
#include <asio/bind_cancellation_slot.hpp>
#include <asio/cancellation_signal.hpp>
#include <asio/co_spawn.hpp>
#include <asio/dispatch.hpp>
#include <asio/use_awaitable.hpp>

#include <exception>
#include <functional>
#include <memory>
#include <utility>

namespace orlinth::platform {

/// Starts a task of its own on `executor`; the one way to do so. What escapes from it is handed to `onEnd`
/// (null when it ended well), on the executor, so that no failure gets lost.
inline void spawn(const Executor& executor, Task<> task, std::function<void(std::exception_ptr)> onEnd) {
    asio::co_spawn(executor, std::move(task), std::move(onEnd));
}

/// The same, with a slot through which the task can be cancelled.
inline void spawn(const Executor& executor, Task<> task, asio::cancellation_slot slot,
                  std::function<void(std::exception_ptr)> onEnd) {
    asio::co_spawn(executor, std::move(task), asio::bind_cancellation_slot(slot, std::move(onEnd)));
}

namespace detail {

/// Starts `work` on `queue` and passes a cancellation on to it there. co_spawn alone would deliver it on the thread
/// that cancels, beside whatever the work is doing on another.
struct RunOnInitiation {
    template <typename Handler, typename T>
    void operator()(Handler handler, Executor queue, Task<T> work) const {
        asio::cancellation_slot outer = asio::get_associated_cancellation_slot(handler);
        if (!outer.is_connected()) {
            asio::co_spawn(queue, std::move(work), std::move(handler));
            return;
        }
        const auto inner = std::make_shared<asio::cancellation_signal>();
        const asio::cancellation_slot innerSlot = inner->slot();
        outer.assign([inner, queue](asio::cancellation_type type) {
            asio::dispatch(queue, [inner, type] { inner->emit(type); });
        });
        asio::co_spawn(queue, std::move(work), asio::bind_cancellation_slot(innerSlot, std::move(handler)));
    }
};

template <typename T>
struct CompletionOf {
    using Signature = void(std::exception_ptr, T);
};
template <>
struct CompletionOf<void> {
    using Signature = void(std::exception_ptr);
};

} // namespace detail

/// Runs a task on a serial queue of its own, so that its connection, its timers and its races never meet on two
/// threads, and returns what it returns. Cancelling the caller cancels it, on its queue.
template <typename T>
[[nodiscard]] Task<T> runOn(Executor queue, Task<T> task) {
    using Signature = typename detail::CompletionOf<T>::Signature;
    const asio::use_awaitable_t<> token;
    co_return co_await asio::async_initiate<const asio::use_awaitable_t<>, Signature>(
        detail::RunOnInitiation(), token, std::move(queue), std::move(task));
}

} // namespace orlinth::platform
