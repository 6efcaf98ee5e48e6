#include "platform/linux/LinuxNetwork.h"

#include "platform/Cancelled.h"
#include "platform/SystemError.h"

#include <asio/bind_executor.hpp>
#include <asio/post.hpp>
#include <asio/redirect_error.hpp>
#include <asio/steady_timer.hpp>
#include <asio/strand.hpp>
#include <asio/this_coro.hpp>
#include <asio/use_awaitable.hpp>

#include <algorithm>
#include <cerrno>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace orlinth::platform {
namespace {

using Tcp = asio::ip::tcp;

void setOption(int socket, int level, int name, int value) {
    if (::setsockopt(socket, level, name, &value, sizeof value) != 0) {
        throw SystemError::fromErrno();
    }
}

/// A new socket that programs started from here do not inherit.
template <typename Socket>
void openSocket(Socket& socket, const Tcp& protocol) {
    const int number = ::socket(protocol.family(), protocol.type() | SOCK_CLOEXEC | SOCK_NONBLOCK, protocol.protocol());
    if (number == -1) {
        throw SystemError::fromErrno();
    }
    std::error_code code;
    socket.assign(protocol, number, code);
    if (code) {
        ::close(number);
        throw SystemError(code);
    }
}

/// The address as what it is: an IPv4 peer of a socket for both kinds has an address of IPv6 there.
asio::ip::address unmapped(const asio::ip::address& address) {
    const bool isMapped = address.is_v6() && address.to_v6().is_v4_mapped();
    return isMapped ? asio::ip::make_address_v4(asio::ip::v4_mapped, address.to_v6()) : address;
}

std::string endpointText(const Tcp::endpoint& endpoint) {
    const asio::ip::address address = unmapped(endpoint.address());
    const std::string port = std::to_string(endpoint.port());
    return address.is_v4() ? address.to_string() + ":" + port : "[" + address.to_string() + "]:" + port;
}

/// Waits until `socket` may be read, or written. What ends the wait early is thrown: Cancelled if the task was
/// cancelled; the error "`what` cancelled" if the socket was closed meanwhile.
template <typename Socket>
Task<> waitUntilReady(Socket& socket, asio::socket_base::wait_type kind, const char* what) {
    std::error_code code;
    try {
        co_await socket.async_wait(kind, asio::redirect_error(asio::use_awaitable, code));
    } catch (const std::exception& error) {
        if (isCancellation(error)) {
            throw Cancelled(); // the task was cancelled before it came here
        }
        throw;
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
Task<> yieldTurn() {
    try {
        co_await asio::post(asio::use_awaitable);
    } catch (const std::exception& error) {
        if (isCancellation(error)) {
            throw Cancelled();
        }
        throw;
    }
}

/// The receive path of a 1 MiB frame, hence: the call first, waiting only where it would block; the kernel wakes us up
/// for a good amount at a time; no allocation but Asio's recycled ones.
class TcpStream final : public Stream {
public:
    TcpStream(Tcp::socket socket, const Tcp::endpoint& remote)
        : socket_(std::move(socket)), remote_(endpointText(remote)) {}

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
                co_await waitUntilReady(socket_, Tcp::socket::wait_write, "connection");
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
                co_await waitUntilReady(socket_, Tcp::socket::wait_read, "connection");
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
            std::error_code ignored; // the socket is closed in any case
            static_cast<void>(socket_.close(ignored));
        }
    }

    Executor executor() const override { return const_cast<Tcp::socket&>(socket_).get_executor(); }
    std::string remoteEndpoint() const override { return remote_; }
    std::string localAddress() const override {
        std::error_code code; // of a connection that is gone
        const Tcp::endpoint local = socket_.local_endpoint(code);
        return code ? "" : unmapped(local.address()).to_string();
    }

private:
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

    Tcp::socket socket_;
    std::string remote_;
    bool cancelled_ = false;
    int lowWaterMark_ = 1; ///< bytes that must have come before a wait ends; the system's own value at first
    std::size_t spentOfTurn_ = 0;
};

/// What accept(2) reports for a connection that died in the queue; the next one may be fine.
bool meansPeerIsGone(int code) noexcept {
    switch (code) {
    case EINTR:
    case ECONNABORTED:
    case EPROTO:
    case EPERM: // a packet filter
    case ENETDOWN:
    case ENOPROTOOPT:
    case EHOSTDOWN:
    case ENONET:
    case EHOSTUNREACH:
    case EOPNOTSUPP:
    case ENETUNREACH:
    case ETIMEDOUT:
        return true;
    default:
        return false;
    }
}

class TcpListener final : public Listener {
public:
    TcpListener(const ListenOptions& options, const Executor& executor) : keepAlive_(options.keepAlive) {
        try {
            protocol_ = Tcp::v6();
            acceptor_.emplace(executor);
            bindTo(options.port);
        } catch (const SystemError& error) {
            if (!meansNoIPv6(error.code())) {
                throw;
            }
            protocol_ = Tcp::v4();
            acceptor_.emplace(executor);
            bindTo(options.port);
        }
    }

    Task<std::unique_ptr<Stream>> accept(Executor executor) override {
        for (;;) {
            if (closed_) {
                throw SystemError("listener cancelled");
            }
            const int number = ::accept4(acceptor_->native_handle(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
            if (number != -1) {
                if (std::unique_ptr<Stream> stream = adopt(number, executor)) {
                    co_return stream;
                }
            } else if (errno == EAGAIN) {
                co_await waitUntilReady(*acceptor_, Tcp::acceptor::wait_read, "listener");
            } else if (!meansPeerIsGone(errno)) {
                throw SystemError::fromErrno();
            }
        }
    }

    std::uint16_t port() const noexcept override { return port_; }

    void close() noexcept override {
        if (!closed_) {
            closed_ = true;
            std::error_code ignored; // the socket is closed in any case
            static_cast<void>(acceptor_->close(ignored));
        }
    }

private:
    static bool meansNoIPv6(std::error_code code) noexcept {
        return code.value() == EAFNOSUPPORT || code.value() == EADDRNOTAVAIL || code.value() == EPROTONOSUPPORT;
    }

    void bindTo(std::uint16_t port) {
        openSocket(*acceptor_, protocol_);
        const int number = acceptor_->native_handle();
        setOption(number, SOL_SOCKET, SO_REUSEADDR, 1);
        if (protocol_ == Tcp::v6()) {
            setOption(number, IPPROTO_IPV6, IPV6_V6ONLY, 0);
        }
        std::error_code code;
        static_cast<void>(acceptor_->bind(Tcp::endpoint(protocol_, port), code));
        if (!code) {
            static_cast<void>(acceptor_->listen(Tcp::acceptor::max_listen_connections, code));
        }
        const Tcp::endpoint local = code ? Tcp::endpoint() : acceptor_->local_endpoint(code);
        if (code) {
            throw SystemError(code);
        }
        port_ = local.port();
    }

    /// The stream of an accepted socket; null if its peer is gone already.
    std::unique_ptr<Stream> adopt(int number, const Executor& executor) {
        Tcp::socket socket(executor);
        std::error_code code;
        static_cast<void>(socket.assign(protocol_, number, code));
        if (code) {
            ::close(number);
            throw SystemError(code);
        }
        const Tcp::endpoint remote = socket.remote_endpoint(code);
        if (code) {
            return nullptr;
        }
        setOption(number, IPPROTO_TCP, TCP_NODELAY, 1);
        if (keepAlive_) {
            setOption(number, SOL_SOCKET, SO_KEEPALIVE, 1);
            setOption(number, IPPROTO_TCP, TCP_KEEPIDLE, keepAlive_->idleSeconds);
            setOption(number, IPPROTO_TCP, TCP_KEEPINTVL, keepAlive_->intervalSeconds);
            setOption(number, IPPROTO_TCP, TCP_KEEPCNT, keepAlive_->count);
        }
        return std::make_unique<TcpStream>(std::move(socket), remote);
    }

    Tcp protocol_ = Tcp::v6();
    std::optional<Tcp::acceptor> acceptor_;
    std::optional<KeepAlive> keepAlive_;
    std::uint16_t port_ = 0;
    bool closed_ = false;
};

/// One attempt. The failure of the address is left in `failure`; null then.
Task<std::unique_ptr<Stream>> connectTo(Tcp::endpoint remote, Executor executor, std::error_code& failure) {
    Tcp::socket socket(executor);
    try {
        openSocket(socket, remote.protocol());
        setOption(socket.native_handle(), IPPROTO_TCP, TCP_NODELAY, 1);
    } catch (const SystemError& error) {
        failure = error.code();
        co_return nullptr;
    }
    failure.clear();
    try {
        co_await socket.async_connect(remote, asio::redirect_error(asio::use_awaitable, failure));
    } catch (const std::exception& error) {
        if (isCancellation(error)) {
            throw Cancelled(); // the task was cancelled before it came here
        }
        throw;
    }
    if (failure == asio::error::operation_aborted) {
        throw Cancelled();
    }
    if (failure) {
        co_return nullptr;
    }
    // A free port on this computer can be met with itself: the system may choose it for our own end as well.
    std::error_code ignored;
    if (socket.local_endpoint(ignored) == remote) {
        failure = std::error_code(ECONNREFUSED, std::generic_category());
        co_return nullptr;
    }
    co_return std::make_unique<TcpStream>(std::move(socket), remote);
}

/// A name on its way through the system's resolver, which works on a thread of its own and cannot be interrupted:
/// whoever waits may leave, and the answer then goes nowhere.
struct Resolution {
    explicit Resolution(const Executor& executor) : settled(executor, asio::steady_timer::time_point::max()) {}

    asio::steady_timer settled; ///< never rings; cancelled when the answer is here
    bool done = false;
    std::error_code code;
    std::vector<Tcp::endpoint> endpoints;
};

Task<> waitFor(std::shared_ptr<Resolution> resolution) {
    while (!resolution->done) {
        std::error_code ignored;
        try {
            co_await resolution->settled.async_wait(asio::redirect_error(asio::use_awaitable, ignored));
        } catch (const std::exception& error) {
            if (isCancellation(error)) {
                throw Cancelled(); // the task was cancelled before it came here
            }
            throw;
        }
        const asio::cancellation_state state = co_await asio::this_coro::cancellation_state;
        if (state.cancelled() != asio::cancellation_type::none) {
            throw Cancelled();
        }
    }
}

} // namespace

LinuxNetwork::LinuxNetwork(asio::io_context& context)
    : context_(context), resolving_(std::make_shared<std::atomic<int>>(0)) {}

Task<std::unique_ptr<Stream>> LinuxNetwork::connect(std::string host, std::uint16_t port, Executor executor) {
    const std::vector<Tcp::endpoint> endpoints = co_await endpointsOf(std::move(host), port);
    std::error_code failure = asio::error::host_not_found;
    for (const Tcp::endpoint& endpoint : endpoints) {
        std::unique_ptr<Stream> stream = co_await connectTo(endpoint, executor, failure);
        if (stream) {
            co_return stream;
        }
    }
    throw SystemError(failure);
}

Task<std::vector<Tcp::endpoint>> LinuxNetwork::endpointsOf(std::string host, std::uint16_t port) {
    if (host.empty() || host.find('\0') != std::string::npos) {
        throw SystemError(asio::error::host_not_found); // the resolver takes "" for this computer, and cuts at a NUL
    }
    std::error_code code;
    const asio::ip::address literal = asio::ip::make_address(host, code);
    if (!code) {
        co_return std::vector<Tcp::endpoint>{Tcp::endpoint(literal, port)};
    }
    const Executor executor = co_await asio::this_coro::executor;
    const auto resolution = std::make_shared<Resolution>(executor);
    resolving_->fetch_add(1);
    const std::shared_ptr<void> counted(nullptr, [count = resolving_](void*) { count->fetch_sub(1); });
    auto onAnswer = [resolution, counted](std::error_code answerCode, const Tcp::resolver::results_type& answer) {
        resolution->code = answerCode;
        for (const auto& entry : answer) {
            resolution->endpoints.push_back(entry.endpoint());
        }
        resolution->done = true;
        resolution->settled.cancel();
    };
    Tcp::resolver resolver(executor);
    // Kinds of addresses that this computer has none of are left out: their failure would hide the real one.
    resolver.async_resolve(host, std::to_string(port),
                           Tcp::resolver::address_configured | Tcp::resolver::numeric_service,
                           asio::bind_executor(executor, std::move(onAnswer)));
    co_await waitFor(resolution);
    if (resolution->code) {
        throw SystemError(resolution->code);
    }
    co_return std::move(resolution->endpoints);
}

std::unique_ptr<Listener> LinuxNetwork::listen(const ListenOptions& options, Executor executor) {
    return std::make_unique<TcpListener>(options, executor);
}

Executor LinuxNetwork::makeSerialQueue(const char* /*label*/) {
    return asio::make_strand(context_);
}

Executor LinuxNetwork::makeWorkerQueue(const char* /*label*/) {
    return workers_.makeSerialQueue();
}

} // namespace orlinth::platform
