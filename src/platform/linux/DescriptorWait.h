#pragma once

#include "platform/Task.h"

#include <asio/posix/stream_descriptor.hpp>

#include <cstdint>

namespace orlinth::platform {

/// Waits for what happens at a descriptor that belongs to somebody else: it is neither read nor made non-blocking,
/// since other programs may have it open as well, as they do a terminal.
///
/// Ownership: the descriptor stays the caller's and is open when this is made; closed, nothing happens at it any more.
/// Threading: everything on the executor.
class DescriptorWatch {
public:
    /// `events` as epoll_ctl(2) has them: EPOLLIN, EPOLLRDHUP, ..., with EPOLLET for news alone. EPOLLERR and EPOLLHUP
    /// are always among them.
    /// @throws SystemError if the system has no room for another wait, or the descriptor cannot be waited for
    DescriptorWatch(const Executor& executor, int descriptor, std::uint32_t events);
    DescriptorWatch(const DescriptorWatch&) = delete;
    DescriptorWatch& operator=(const DescriptorWatch&) = delete;

    /// Returns once one of the events is there; with EPOLLET, once one has come that no wait has returned for. One wait
    /// at a time; this outlives it. @throws Cancelled, also once it is closed
    [[nodiscard]] Task<> wait();
    /// Ends a wait.
    void close() noexcept;

private:
    asio::posix::stream_descriptor epoll_;
};

/// Waits until a read of the descriptor would not block: there is something to read, or the end, or an error that the
/// read will report. What can always be read, such as a regular file, is not waited for.
///
/// The descriptor stays the caller's, open until the task has ended, and is not made non-blocking: see DescriptorWatch.
/// @throws Cancelled; SystemError if the system has no room for another wait
[[nodiscard]] Task<> untilReadable(int descriptor);

} // namespace orlinth::platform
