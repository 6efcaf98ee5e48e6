#include "platform/linux/TcpListener.h"

#include <cerrno>
#include <fcntl.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace orlinth::platform {
namespace {

using Tcp = asio::ip::tcp;

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

int socketOption(int socket, int name) {
    int value = -1;
    socklen_t size = sizeof value;
    return ::getsockopt(socket, SOL_SOCKET, name, &value, &size) == 0 ? value : -1;
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

bool meansNoIPv6(std::error_code code) noexcept {
    return code.value() == EAFNOSUPPORT || code.value() == EADDRNOTAVAIL || code.value() == EPROTONOSUPPORT;
}

} // namespace

void setSocketOption(int socket, int level, int name, int value) {
    if (::setsockopt(socket, level, name, &value, sizeof value) != 0) {
        throw SystemError::fromErrno();
    }
}

void openTcpSocket(Tcp::socket& socket, const Tcp& protocol) {
    openSocket(socket, protocol);
}

namespace {

/// @throws SystemError
void setKeepAliveOf(int number, const KeepAlive& keepAlive) {
    setSocketOption(number, SOL_SOCKET, SO_KEEPALIVE, 1);
    setSocketOption(number, IPPROTO_TCP, TCP_KEEPIDLE, keepAlive.idleSeconds);
    setSocketOption(number, IPPROTO_TCP, TCP_KEEPINTVL, keepAlive.intervalSeconds);
    setSocketOption(number, IPPROTO_TCP, TCP_KEEPCNT, keepAlive.count);
}

} // namespace

TcpStream::TcpStream(Tcp::socket socket, const Tcp::endpoint& remote)
    : SocketStream(std::move(socket), endpointText(remote)) {}

void TcpStream::abort() noexcept {
    resetOnClose(true);
    cancel();
}

void TcpStream::resetOnClose(bool resets) noexcept {
    const linger discard{.l_onoff = resets ? 1 : 0, .l_linger = 0};
    ::setsockopt(descriptor(), SOL_SOCKET, SO_LINGER, &discard, sizeof discard);
}

void TcpStream::setKeepAlive(const KeepAlive& keepAlive) noexcept {
    // While data is unacknowledged Linux sends no probes: it sends the data again, for a quarter of an hour. This limit
    // ends that at the same time as unanswered probes would. It counts from when the peer last took something, so it
    // also ends a connection to a peer that answers but has had no room for that long.
    const int milliseconds = 1000 * (keepAlive.idleSeconds + keepAlive.intervalSeconds * keepAlive.count);
    try {
        setKeepAliveOf(descriptor(), keepAlive);
        setSocketOption(descriptor(), IPPROTO_TCP, TCP_USER_TIMEOUT, milliseconds);
    } catch (const SystemError&) {
        return; // the connection is gone, or as good as before
    }
}

std::optional<std::int64_t> TcpStream::unacknowledgedBytes() const noexcept {
    int count = 0;
    if (::ioctl(descriptor(), SIOCOUTQ, &count) != 0) {
        return std::nullopt;
    }
    return count;
}

std::string TcpStream::localAddress() const {
    std::error_code code; // of a connection that is gone
    const Tcp::endpoint local = socket().local_endpoint(code);
    return code ? "" : unmapped(local.address()).to_string();
}

TcpListener::TcpListener(const ListenOptions& options, const Executor& executor) : keepAlive_(options.keepAlive) {
    try {
        protocol_ = Tcp::v6();
        bindTo(options.port, executor);
    } catch (const SystemError& error) {
        if (!meansNoIPv6(error.code())) {
            throw;
        }
        protocol_ = Tcp::v4();
        bindTo(options.port, executor);
    }
}

TcpListener::TcpListener(int descriptor, std::optional<KeepAlive> keepAlive, const Executor& executor)
    : keepAlive_(keepAlive) {
    const int family = socketOption(descriptor, SO_DOMAIN);
    const bool isTcp = (family == AF_INET || family == AF_INET6) && socketOption(descriptor, SO_TYPE) == SOCK_STREAM &&
                       socketOption(descriptor, SO_PROTOCOL) == IPPROTO_TCP;
    if (!isTcp || socketOption(descriptor, SO_ACCEPTCONN) != 1) {
        ::close(descriptor);
        throw SystemError("descriptor " + std::to_string(descriptor) + " is no listening TCP socket");
    }
    protocol_ = family == AF_INET6 ? Tcp::v6() : Tcp::v4();
    acceptor_.emplace(executor);
    std::error_code code;
    static_cast<void>(acceptor_->assign(protocol_, descriptor, code));
    if (code) {
        ::close(descriptor);
        throw SystemError(code);
    }
    static_cast<void>(acceptor_->native_non_blocking(true, code));
    const Tcp::endpoint local = code ? Tcp::endpoint() : acceptor_->local_endpoint(code);
    if (code || ::fcntl(descriptor, F_SETFD, FD_CLOEXEC) != 0) {
        throw code ? SystemError(code) : SystemError::fromErrno();
    }
    port_ = local.port();
}

Task<std::unique_ptr<Stream>> TcpListener::accept(Executor executor) {
    for (;;) {
        if (closed_) {
            throw SystemError("listener cancelled");
        }
        const int number = ::accept4(acceptor_->native_handle(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (number != -1) {
            std::unique_ptr<Stream> stream = adopt(number, executor);
            co_await yieldTurn(); // whoever calls as fast as we accept must not keep the others of this queue waiting
            if (stream) {
                co_return stream;
            }
        } else if (errno == EAGAIN) {
            co_await waitUntilReady(*acceptor_, Tcp::acceptor::wait_read, "listener");
        } else if (!meansPeerIsGone(errno)) {
            throw SystemError::fromErrno();
        }
    }
}

void TcpListener::close() noexcept {
    if (!closed_) {
        closed_ = true;
        std::error_code ignored; // the socket is closed in any case
        static_cast<void>(acceptor_->close(ignored));
    }
}

int TcpListener::descriptor() const noexcept {
    return closed_ ? -1 : const_cast<Tcp::acceptor&>(*acceptor_).native_handle();
}

int TcpListener::duplicate() const {
    const int number = ::fcntl(descriptor(), F_DUPFD_CLOEXEC, 0);
    if (number == -1) {
        throw SystemError::fromErrno();
    }
    return number;
}

void TcpListener::bindTo(std::uint16_t port, const Executor& executor) {
    acceptor_.emplace(executor);
    openSocket(*acceptor_, protocol_);
    const int number = acceptor_->native_handle();
    setSocketOption(number, SOL_SOCKET, SO_REUSEADDR, 1);
    if (protocol_ == Tcp::v6()) {
        setSocketOption(number, IPPROTO_IPV6, IPV6_V6ONLY, 0);
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
std::unique_ptr<Stream> TcpListener::adopt(int number, const Executor& executor) {
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
    setSocketOption(number, IPPROTO_TCP, TCP_NODELAY, 1);
    if (keepAlive_) {
        setKeepAliveOf(number, *keepAlive_);
    }
    return std::make_unique<TcpStream>(std::move(socket), remote);
}

} // namespace orlinth::platform
