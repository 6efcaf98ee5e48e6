#include "platform/linux/DescriptorWait.h"

#include "platform/Cancelled.h"
#include "platform/SystemError.h"
#include "platform/linux/Descriptor.h"

#include <asio/redirect_error.hpp>
#include <asio/this_coro.hpp>
#include <asio/use_awaitable.hpp>

#include <cerrno>
#include <poll.h>
#include <sys/epoll.h>

namespace orlinth::platform {
namespace {

bool isReadable(int descriptor) {
    pollfd ready{descriptor, POLLIN, 0};
    return ::poll(&ready, 1, 0) > 0;
}

} // namespace

// Asio makes what it waits for non-blocking, for everybody who has it open; so it gets a descriptor that nobody else
// has, and that is readable whenever there is an event at the other one.
DescriptorWatch::DescriptorWatch(const Executor& executor, int descriptor, std::uint32_t events) : epoll_(executor) {
    detail::Descriptor epoll = detail::Descriptor::require(::epoll_create1(EPOLL_CLOEXEC));
    epoll_event wanted{};
    wanted.events = events;
    if (::epoll_ctl(epoll.get(), EPOLL_CTL_ADD, descriptor, &wanted) == -1) {
        throw SystemError::fromErrno();
    }
    std::error_code code;
    static_cast<void>(epoll_.assign(epoll.get(), code));
    if (code) { // no room for another one to wait for
        throw SystemError(code);
    }
    static_cast<void>(epoll.release());
}

Task<> DescriptorWatch::wait() {
    for (int count = 0; count == 0;) {
        std::error_code code;
        try {
            co_await epoll_.async_wait(asio::posix::stream_descriptor::wait_read,
                                       asio::redirect_error(asio::use_awaitable, code));
        } catch (const std::exception& error) {
            throwFromAwait(error);
        }
        if (!epoll_.is_open()) {
            throw Cancelled();
        }
        throwIfFailed(code);
        epoll_event event{};
        count = ::epoll_wait(epoll_.native_handle(), &event, 1, 0); // takes news off its list
        if (count == -1 && errno == EINTR) {
            count = 0;
        } else if (count == -1) {
            throw SystemError::fromErrno();
        }
    }
}

void DescriptorWatch::close() noexcept {
    std::error_code ignored; // it is closed in any case
    static_cast<void>(epoll_.close(ignored));
}

Task<> untilReadable(int descriptor) {
    if (isReadable(descriptor)) {
        co_return;
    }
    DescriptorWatch watch(co_await asio::this_coro::executor, descriptor, EPOLLIN);
    co_await watch.wait();
}

} // namespace orlinth::platform
