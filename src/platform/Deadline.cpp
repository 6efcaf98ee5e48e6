#include "platform/Deadline.h"

#include <asio/associated_cancellation_slot.hpp>
#include <asio/async_result.hpp>
#include <asio/bind_cancellation_slot.hpp>
#include <asio/co_spawn.hpp>
#include <asio/use_awaitable.hpp>

namespace orlinth::platform {
namespace {

/// The time is over.
class Late final : public std::exception {};

struct CancellableInitiation {
    template <typename Handler>
    void operator()(Handler handler, const Executor& executor, const std::shared_ptr<asio::cancellation_signal>& cancel,
                    Task<> work) const {
        asio::cancellation_slot outer = asio::get_associated_cancellation_slot(handler);
        if (outer.is_connected()) {
            outer.assign([cancel](asio::cancellation_type type) { cancel->emit(type); });
        }
        asio::co_spawn(executor, std::move(work), asio::bind_cancellation_slot(cancel->slot(), std::move(handler)));
    }
};

Task<bool> thenTrue(Task<> operation) {
    co_await std::move(operation);
    co_return true;
}

} // namespace

Task<> detail::runCancellably(std::shared_ptr<asio::cancellation_signal> cancel, Task<> work) {
    const Executor executor = co_await asio::this_coro::executor;
    const asio::use_awaitable_t<> token;
    co_await asio::async_initiate<const asio::use_awaitable_t<>, void(std::exception_ptr)>(
        CancellableInitiation(), token, executor, cancel, std::move(work));
}

Task<bool> endsWithin(Clock& clock, Seconds limit, Task<> operation) {
    OneShot<bool> hasEnded;
    co_await settleFirst(hasEnded, clock, limit, std::make_exception_ptr(Late()), thenTrue(std::move(operation)));
    try {
        co_return hasEnded.take();
    } catch (const Late&) {
        co_return false;
    }
}

} // namespace orlinth::platform
