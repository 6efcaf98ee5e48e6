#pragma once

#include "platform/Cancelled.h"
#include "platform/Network.h"
#include "platform/SystemError.h"
#include "platform/linux/DescriptorWait.h"

#include <asio/post.hpp>
#include <asio/redirect_error.hpp>
#include <asio/this_coro.hpp>
#include <asio/use_awaitable.hpp>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <poll.h>
#include <string>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <utility>

namespace orlinth::platform {

/// Waits until `socket` may be read, or written. What ends the wait early is thrown: Cancelled if the task was
/// cancelled; the error "`what` cancelled" if the socket was closed meanwhile.
template <typename Socket>
Task<> waitUntilReady(Socket& socket, typename Socket::wait_type kind, const char* what) {
    std::error_code code;
    try {
        co_await socket.async_wait(kind, asio::redirect_error(asio::use_awaitable, code));
    } catch (const std::exception& error) {
        throwFromAwait(error);
    }
    const asio::cancellation_state state = co_await asio::this_coro::cancellation_state;
    if (state.cancelled() != asio::cancellation_type::none) {
        throw Cancelled();
    }
    if (code == asio::error::operation_aborted || code == asio::error::bad_descriptor) {
        throw SystemError(std::string(what) + " cancelled");
    }
    if (code) {
        throw SystemError(code);
    }
}

/// Lets everything else that is due on this executor run first.
inline Task<> yieldTurn() {
    try {
        co_await asio::post(asio::use_awaitable);
    } catch (const std::exception& error) {
        throwFromAwait(error);
    }
}

/// A connected socket of any kind that carries a stream of bytes.
///
/// The receive path of a 1 MiB frame, hence: the call first, waiting only where it would block; the kernel wakes us up
/// for a good amount at a time; no allocation but Asio's recycled ones.
template <typename Socket>
class SocketStream : public Stream {
public:
    SocketStream(Socket socket, std::string remote) : socket_(std::move(socket)), remote_(std::move(remote)) {}

    Task<> writeAll(ByteView data) override {
        throwIfCancelled();
        if (mustYield(data.size())) {
            co_await yieldTurn();
            throwIfCancelled();
        }
        while (!data.empty()) {
            const ssize_t count = ::send(socket_.native_handle(), data.data(), data.size(), MSG_NOSIGNAL);
            if (count < 0 && errno == EINTR) {
                continue;
            }
            if (count < 0 && errno != EAGAIN) {
                throw SystemError::fromErrno();
            }
            data = data.subspan(count > 0 ? static_cast<std::size_t>(count) : 0);
            if (!data.empty()) { // the buffer is full: a second call would only say so again
                spentOfTurn_ = 0;
                co_await waitUntilReady(socket_, Socket::wait_write, "connection");
                throwIfCancelled();
            }
        }
    }

    Task<std::size_t> readExact(MutableBytes into) override {
        throwIfCancelled();
        if (mustYield(into.size())) {
            co_await yieldTurn();
            throwIfCancelled();
        }
        std::size_t done = 0;
        while (done < into.size()) {
            const ssize_t count = ::recv(socket_.native_handle(), into.data() + done, into.size() - done, 0);
            if (count == 0) {
                break;
            }
            if (count < 0 && errno == EINTR) {
                continue;
            }
            if (count < 0 && errno != EAGAIN) {
                throw SystemError::fromErrno();
            }
            done += count > 0 ? static_cast<std::size_t>(count) : 0;
            if (done < into.size()) {
                spentOfTurn_ = 0;
                wakeUpFor(into.size() - done);
                co_await waitUntilReady(socket_, Socket::wait_read, "connection");
                throwIfCancelled();
            }
        }
        co_return done;
    }

    void finishWriting() noexcept override {
        if (!cancelled_) {
            ::shutdown(socket_.native_handle(), SHUT_WR); // where it fails there is no peer left to tell
        }
    }

    void cancel() noexcept override {
        if (!cancelled_) {
            cancelled_ = true;
            if (end_) {
                end_->close();
            }
            std::error_code ignored; // the socket is closed in any case
            static_cast<void>(socket_.close(ignored));
        }
    }

    bool hasEnded() const noexcept override {
        pollfd look{.fd = descriptor(), .events = POLLRDHUP, .revents = 0};
        constexpr short ends = POLLRDHUP | POLLHUP | POLLERR | POLLNVAL;
        return cancelled_ || (::poll(&look, 1, 0) > 0 && (look.revents & ends) != 0);
    }

    Task<> untilEnded() override {
        const EndOfWait release(end_); // a descriptor less for the rest of the connection
        while (!hasEnded()) {
            end_.emplace(executor(), descriptor(), EPOLLRDHUP);
            try {
                co_await end_->wait();
            } catch (const Cancelled&) {
                if (!cancelled_) { // the task was, not the connection
                    throw;
                }
            }
        }
    }

    Executor executor() const override { return const_cast<Socket&>(socket_).get_executor(); }
    std::string remoteEndpoint() const override { return remote_; }

protected:
    /// For what only one kind of socket can do. Closed after cancel().
    [[nodiscard]] const Socket& socket() const noexcept { return socket_; }
    [[nodiscard]] Socket& socket() noexcept { return socket_; }
    /// -1 after cancel().
    [[nodiscard]] int descriptor() const noexcept { return const_cast<Socket&>(socket_).native_handle(); }

private:
    struct EndOfWait {
        explicit EndOfWait(std::optional<DescriptorWatch>& of) : watch(of) {}
        EndOfWait(const EndOfWait&) = delete;
        EndOfWait& operator=(const EndOfWait&) = delete;
        ~EndOfWait() { watch.reset(); }
        std::optional<DescriptorWatch>& watch;
    };

    void throwIfCancelled() const {
        if (cancelled_) {
            throw SystemError("connection cancelled");
        }
    }

    /// Calls that never have to wait would keep timers and signals waiting for ever: now and then they step back.
    bool mustYield(std::size_t bytes) noexcept {
        constexpr std::size_t bytesPerTurn = std::size_t{4} << 20U;
        constexpr std::size_t leastCharge = std::size_t{16} << 10U; // what a call costs, as bytes
        spentOfTurn_ += std::max(bytes, leastCharge);
        if (spentOfTurn_ < bytesPerTurn) {
            return false;
        }
        spentOfTurn_ = 0;
        return true;
    }

    /// Makes the next wait last until a good part of the `missing` bytes has come, and never longer than they would.
    void wakeUpFor(std::size_t missing) noexcept {
        constexpr std::size_t most = std::size_t{2} << 20U; // a whole frame of a transfer; a full window wakes up too
        const int mark = static_cast<int>(std::min(missing, most));
        if (mark != lowWaterMark_ &&
            ::setsockopt(socket_.native_handle(), SOL_SOCKET, SO_RCVLOWAT, &mark, sizeof mark) == 0) {
            lowWaterMark_ = mark;
        }
    }

    Socket socket_;
    std::string remote_;
    bool cancelled_ = false;
    int lowWaterMark_ = 1; ///< bytes that must have come before a wait ends; the system's own value at first
    std::size_t spentOfTurn_ = 0;
    std::optional<DescriptorWatch> end_; ///< of the connection, while somebody waits for it
};

} // namespace orlinth::platform
