#include "platform/linux/TcpListener.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace orlinth::platform {
namespace {

using detail::Descriptor;

using Tcp = asio::ip::tcp;

/// A new socket that programs started from here do not inherit.
template <typename Socket>
void openSocket(Socket& socket, const Tcp& protocol) {
    Descriptor made = Descriptor::require(
        ::socket(protocol.family(), protocol.type() | SOCK_CLOEXEC | SOCK_NONBLOCK, protocol.protocol()));
    std::error_code code;
    socket.assign(protocol, made.get(), code);
    if (code) {
        throw SystemError(code);
    }
    static_cast<void>(made.release());
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
    setSocketOption(number, IPPROTO_TCP, TCP_KEEPIDLE, static_cast<int>(keepAlive.idle.count()));
    setSocketOption(number, IPPROTO_TCP, TCP_KEEPINTVL, static_cast<int>(keepAlive.interval.count()));
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
    const std::chrono::milliseconds limit = keepAlive.idle + keepAlive.interval * keepAlive.count;
    try {
        setKeepAliveOf(descriptor(), keepAlive);
        setSocketOption(descriptor(), IPPROTO_TCP, TCP_USER_TIMEOUT, static_cast<int>(limit.count()));
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

TcpListener::TcpListener(const ListenOptions& options, const Executor& executor)
    : keepAlive_(options.keepAlive), port_(options.port) {
    if (options.places.empty()) {
        openEverywhere(executor);
    }
    for (const std::string& place : options.places) {
        openAt(place, executor);
    }
    if (doors_.size() > 1) {
        watchAll(executor);
    }
}

TcpListener::TcpListener(Descriptor socket, std::optional<KeepAlive> keepAlive, const Executor& executor)
    : keepAlive_(keepAlive) {
    const int descriptor = socket.get();
    const int family = socketOption(descriptor, SO_DOMAIN);
    const bool isTcp = (family == AF_INET || family == AF_INET6) && socketOption(descriptor, SO_TYPE) == SOCK_STREAM &&
                       socketOption(descriptor, SO_PROTOCOL) == IPPROTO_TCP;
    if (!isTcp || socketOption(descriptor, SO_ACCEPTCONN) != 1) {
        throw SystemError("descriptor " + std::to_string(descriptor) + " is no listening TCP socket");
    }
    Door& door = doors_.emplace_back(
        Door{.protocol = family == AF_INET6 ? Tcp::v6() : Tcp::v4(), .acceptor = Tcp::acceptor(executor)});
    std::error_code code;
    static_cast<void>(door.acceptor.assign(door.protocol, descriptor, code));
    if (code) {
        throw SystemError(code);
    }
    static_cast<void>(socket.release()); // the acceptor's now
    static_cast<void>(door.acceptor.native_non_blocking(true, code));
    const Tcp::endpoint local = code ? Tcp::endpoint() : door.acceptor.local_endpoint(code);
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
        bool isAnybodyThere = false;
        std::unique_ptr<Stream> stream = acceptNow(executor, isAnybodyThere);
        if (isAnybodyThere) {
            co_await yieldTurn(); // whoever calls as fast as we accept must not keep the others of this queue waiting
            if (stream) {
                co_return stream;
            }
        } else {
            co_await waitForAnybody();
        }
    }
}

/// Null if nobody is there, or if the one who was is gone already.
std::unique_ptr<Stream> TcpListener::acceptNow(const Executor& executor, bool& isAnybodyThere) {
    for (std::size_t looked = 0; looked < doors_.size(); ++looked) {
        next_ = (next_ + 1) % doors_.size(); // each door gets its turn
        const Door& door = doors_[next_];
        const int listening = const_cast<Tcp::acceptor&>(door.acceptor).native_handle();
        const int number = ::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (number != -1) {
            isAnybodyThere = true;
            return adopt(door, Descriptor(number), keepAlive_, executor);
        }
        if (meansPeerIsGone(errno)) {
            isAnybodyThere = true;
            return nullptr;
        }
        if (errno != EAGAIN) {
            throw SystemError::fromErrno();
        }
    }
    return nullptr;
}

Task<> TcpListener::waitForAnybody() {
    if (all_) {
        return waitUntilReady(*all_, asio::posix::stream_descriptor::wait_read, "listener");
    }
    return waitUntilReady(doors_.front().acceptor, Tcp::acceptor::wait_read, "listener");
}

std::string TcpListener::place() const {
    if (closed_) {
        return {};
    }
    const Door& door = doors_.front();
    std::array<char, IF_NAMESIZE> interface{};
    socklen_t size = interface.size();
    const int number = descriptor();
    if (::getsockopt(number, SOL_SOCKET, SO_BINDTODEVICE, interface.data(), &size) == 0 && interface.front() != '\0') {
        return interface.data();
    }
    std::error_code code;
    const Tcp::endpoint local = door.acceptor.local_endpoint(code);
    const asio::ip::address address = unmapped(local.address());
    int takesIPv6Alone = 0;
    size = sizeof takesIPv6Alone;
    const bool isForIPv4 =
        address.is_v4() ||
        (::getsockopt(number, IPPROTO_IPV6, IPV6_V6ONLY, &takesIPv6Alone, &size) == 0 && takesIPv6Alone == 0);
    return code || (address.is_unspecified() && isForIPv4) ? "" : address.to_string();
}

void TcpListener::close() noexcept {
    if (!closed_) {
        closed_ = true;
        std::error_code ignored; // the sockets are closed in any case
        for (Door& door : doors_) {
            static_cast<void>(door.acceptor.close(ignored));
        }
        if (all_) {
            static_cast<void>(all_->close(ignored));
        }
    }
}

int TcpListener::descriptor() const noexcept {
    return closed_ ? -1 : const_cast<Tcp::acceptor&>(doors_.front().acceptor).native_handle();
}

Descriptor TcpListener::duplicate() const {
    return Descriptor::require(::fcntl(descriptor(), F_DUPFD_CLOEXEC, 0));
}

TcpListener::Door& TcpListener::addDoor(const Tcp& protocol, const Executor& executor) {
    Door& door = doors_.emplace_back(Door{.protocol = protocol, .acceptor = Tcp::acceptor(executor)});
    openSocket(door.acceptor, protocol);
    setSocketOption(door.acceptor.native_handle(), SOL_SOCKET, SO_REUSEADDR, 1);
    return door;
}

/// On the port of the doors before it, or the one that is wanted.
void TcpListener::bindAndListen(Door& door, const asio::ip::address& address) {
    std::error_code code;
    static_cast<void>(door.acceptor.bind(Tcp::endpoint(address, port_), code));
    if (!code) {
        static_cast<void>(door.acceptor.listen(Tcp::acceptor::max_listen_connections, code));
    }
    const Tcp::endpoint local = code ? Tcp::endpoint() : door.acceptor.local_endpoint(code);
    if (code) {
        throw SystemError(code);
    }
    port_ = local.port();
}

void TcpListener::openEverywhere(const Executor& executor) {
    try {
        Door& door = addDoor(Tcp::v6(), executor);
        setSocketOption(door.acceptor.native_handle(), IPPROTO_IPV6, IPV6_V6ONLY, 0);
        bindAndListen(door, asio::ip::address_v6::any());
    } catch (const SystemError& error) {
        doors_.clear();
        if (!meansNoIPv6(error.code())) {
            throw;
        }
        bindAndListen(addDoor(Tcp::v4(), executor), asio::ip::address_v4::any());
    }
}

void TcpListener::openAt(const std::string& place, const Executor& executor) {
    std::error_code code;
    const asio::ip::address address = asio::ip::make_address(place, code);
    if (!code) {
        Door& door = addDoor(address.is_v6() ? Tcp::v6() : Tcp::v4(), executor);
        if (address.is_v6()) {
            setSocketOption(door.acceptor.native_handle(), IPPROTO_IPV6, IPV6_V6ONLY, 1);
        }
        bindAndListen(door, address);
        return;
    }
    if (place.empty() || place.size() >= IF_NAMESIZE) {
        throw SystemError::fromErrno(ENODEV);
    }
    const auto bindToInterface = [&](Door& door) {
        const int number = door.acceptor.native_handle();
        if (::setsockopt(number, SOL_SOCKET, SO_BINDTODEVICE, place.c_str(),
                         static_cast<socklen_t>(place.size() + 1)) != 0) {
            throw SystemError::fromErrno();
        }
    };
    try {
        Door& door = addDoor(Tcp::v6(), executor);
        setSocketOption(door.acceptor.native_handle(), IPPROTO_IPV6, IPV6_V6ONLY, 0);
        bindToInterface(door);
        bindAndListen(door, asio::ip::address_v6::any());
    } catch (const SystemError& error) {
        doors_.pop_back();
        if (!meansNoIPv6(error.code())) {
            throw;
        }
        Door& door = addDoor(Tcp::v4(), executor);
        bindToInterface(door);
        bindAndListen(door, asio::ip::address_v4::any());
    }
}

/// One descriptor that stands for all of them, so that one wait is enough.
void TcpListener::watchAll(const Executor& executor) {
    Descriptor set = Descriptor::require(::epoll_create1(EPOLL_CLOEXEC));
    all_.emplace(executor, set.get());
    const int number = set.release(); // which owns it from now on
    for (Door& door : doors_) {
        epoll_event event{.events = EPOLLIN, .data = {}};
        if (::epoll_ctl(number, EPOLL_CTL_ADD, door.acceptor.native_handle(), &event) != 0) {
            throw SystemError::fromErrno();
        }
    }
}

/// The stream of an accepted socket; null if its peer is gone already.
std::unique_ptr<Stream> TcpListener::adopt(const Door& door, Descriptor accepted,
                                           const std::optional<KeepAlive>& keepAlive, const Executor& executor) {
    Tcp::socket socket(executor);
    std::error_code code;
    static_cast<void>(socket.assign(door.protocol, accepted.get(), code));
    if (code) {
        throw SystemError(code);
    }
    const int number = accepted.release();
    const Tcp::endpoint remote = socket.remote_endpoint(code);
    if (code) {
        return nullptr;
    }
    setSocketOption(number, IPPROTO_TCP, TCP_NODELAY, 1);
    if (keepAlive) {
        setKeepAliveOf(number, *keepAlive);
    }
    return std::make_unique<TcpStream>(std::move(socket), remote);
}

} // namespace orlinth::platform
