#include "platform/linux/DescriptorWait.h"

#include "platform/Cancelled.h"
#include "platform/SystemError.h"
#include "platform/linux/Descriptor.h"

#include <asio/posix/stream_descriptor.hpp>
#include <asio/redirect_error.hpp>
#include <asio/this_coro.hpp>
#include <asio/use_awaitable.hpp>

#include <poll.h>
#include <sys/epoll.h>

namespace orlinth::platform {
namespace {

bool isReadable(int descriptor) {
    pollfd ready{descriptor, POLLIN, 0};
    return ::poll(&ready, 1, 0) > 0;
}

} // namespace

Task<> untilReadable(int descriptor) {
    if (isReadable(descriptor)) {
        co_return;
    }
    const Executor executor = co_await asio::this_coro::executor;
    // Readable whenever the other one is. Asio makes what it waits for non-blocking, for everybody who has it open; so
    // it gets a descriptor that nobody else has.
    detail::Descriptor epoll = detail::Descriptor::require(::epoll_create1(EPOLL_CLOEXEC));
    asio::posix::stream_descriptor watch(executor);
    std::error_code code;
    static_cast<void>(watch.assign(epoll.get(), code));
    if (code) { // no room for another one to wait for
        throw SystemError(code);
    }
    static_cast<void>(epoll.release());
    epoll_event wanted{};
    wanted.events = EPOLLIN;
    if (::epoll_ctl(watch.native_handle(), EPOLL_CTL_ADD, descriptor, &wanted) == -1) {
        throw SystemError::fromErrno();
    }
    try {
        co_await watch.async_wait(asio::posix::stream_descriptor::wait_read,
                                  asio::redirect_error(asio::use_awaitable, code));
    } catch (const std::exception& error) {
        throwFromAwait(error);
    }
    throwIfFailed(code);
}

} // namespace orlinth::platform
