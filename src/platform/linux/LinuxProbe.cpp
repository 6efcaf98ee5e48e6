#include "platform/linux/LinuxProbe.h"

#include "platform/Deadline.h"
#include "platform/SystemError.h"
#include "platform/linux/Descriptor.h"
#include "platform/linux/NetlinkSocket.h"
#include "platform/linux/SocketErrorQueue.h"
#include "platform/linux/TcpListener.h"

#include <asio/ip/tcp.hpp>
#include <asio/system_error.hpp>

#include <algorithm>
#include <cerrno>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <optional>
#include <sys/socket.h>
#include <utility>
#include <vector>

namespace orlinth::platform {
namespace {

using Tcp = asio::ip::tcp;

ProbeFailure failureOf(int number) {
    return {.code = std::error_code(number, std::generic_category()), .icmp = std::nullopt};
}

/// The IPv4 address that one of IPv6 stands for, if it does.
IpAddress withoutMapping(const IpAddress& address) {
    if (const auto* const v6 = std::get_if<Ipv6Address>(&address)) {
        if (const std::optional<Ipv4Address> v4 = unmapped(*v6)) {
            return *v4;
        }
    }
    return address;
}

Tcp::endpoint endpointOf(const IpAddress& address, std::uint32_t zone, std::uint16_t port) {
    if (const auto* const v4 = std::get_if<Ipv4Address>(&address)) {
        return {asio::ip::address_v4(*v4), port};
    }
    return {asio::ip::address_v6(std::get<Ipv6Address>(address).bytes, zone), port};
}

Tcp::socket newSocket(const Executor& executor) {
    try {
        return Tcp::socket(executor);
    } catch (const asio::system_error& error) { // no descriptors left for Asio itself
        throw SystemError(error.code());
    }
}

/// One connection on its way. Lives in the frame of whoever awaits it.
class Attempt {
public:
    Attempt(const Tcp::endpoint& remote, const Executor& executor) : remote_(remote), socket_(newSocket(executor)) {
        openTcpSocket(socket_, remote_.protocol());
        setSocketOption(socket_.native_handle(), IPPROTO_TCP, TCP_NODELAY, 1);
        keepErrorReports(socket_.native_handle(), isIpv6(), true);
    }

    /// Ends with a result.
    Task<> run() {
        const auto size = static_cast<socklen_t>(remote_.size());
        const bool isBegun = ::connect(socket_.native_handle(), remote_.data(), size) == 0 || errno == EINPROGRESS ||
                             errno == EINTR; // which leaves it under way too
        if (!isBegun) {
            result_ = explained(errno);
            co_return;
        }
        look();
        while (!result_) {
            co_await waitUntilReady(socket_, Tcp::socket::wait_write, "connection");
            look();
        }
    }

    /// Nothing if it was interrupted.
    [[nodiscard]] std::optional<ProbeResult> takeResult() { return std::move(result_); }

private:
    [[nodiscard]] bool isIpv6() const { return remote_.protocol() == Tcp::v6(); }

    /// There is a connection, an error, a report that ends nothing, or nothing yet.
    void look() {
        int number = takeError(); // first: taking the last report takes the error that goes with it off the socket
        takeReports();
        if (number == 0 && isClosed()) { // it has failed since
            number = takeError();
            if (number == 0) {
                number = reports_.empty() ? ECONNABORTED : reports_.back().errorNumber;
            }
        }
        if (number != 0) {
            result_ = explained(number);
            return;
        }
        std::error_code code;
        static_cast<void>(socket_.remote_endpoint(code));
        if (code.value() == ENOTCONN) {
            return; // not yet
        }
        if (code) {
            result_ = explained(code.value());
            return;
        }
        finish();
    }

    void finish() {
        // A free port on this computer can be met with itself: the system may choose it for our own end as well.
        std::error_code ignored;
        if (socket_.local_endpoint(ignored) == remote_) {
            result_ = failureOf(ECONNREFUSED);
            return;
        }
        keepErrorReports(socket_.native_handle(), isIpv6(), false);
        std::unique_ptr<Stream> stream = std::make_unique<TcpStream>(std::move(socket_), remote_);
        result_ = std::move(stream);
    }

    /// The socket's error, which it then has no more; 0 if there is none.
    int takeError() {
        int number = 0;
        socklen_t size = sizeof number;
        return ::getsockopt(socket_.native_handle(), SOL_SOCKET, SO_ERROR, &number, &size) == 0 ? number : errno;
    }

    /// Whether the kernel has given up: nothing comes any more.
    bool isClosed() {
        tcp_info info{};
        socklen_t size = sizeof info;
        return ::getsockopt(socket_.native_handle(), IPPROTO_TCP, TCP_INFO, &info, &size) != 0 ||
               info.tcpi_state == TCP_CLOSE;
    }

    void takeReports() {
        for (const SocketErrorReport& report : takeErrorReports(socket_.native_handle())) {
            reports_.push_back(report);
        }
    }

    /// The failure with the report of the same error, the newest if there are several.
    ProbeFailure explained(int number) {
        takeReports(); // one may have come with the error just now
        ProbeFailure failure = failureOf(number);
        const auto isOfIt = [number](const SocketErrorReport& report) {
            return report.errorNumber == number && report.icmp.has_value();
        };
        const auto found = std::find_if(reports_.rbegin(), reports_.rend(), isOfIt);
        if (found != reports_.rend()) {
            failure.icmp = found->icmp;
        }
        return failure;
    }

    const Tcp::endpoint remote_;
    Tcp::socket socket_;
    std::vector<SocketErrorReport> reports_;
    std::optional<ProbeResult> result_;
};

} // namespace

Task<ProbeResult> LinuxProbe::connect(IpAddress address, std::uint16_t port, Seconds limit, Executor executor) {
    address = withoutMapping(address); // the reports are those of IPv4 then
    const std::optional<std::uint32_t> zone = zoneIndex(address);
    if (!zone) {
        co_return failureOf(ENODEV);
    }
    Attempt attempt(endpointOf(address, *zone, port), executor);
    static_cast<void>(co_await endsWithin(clock_, limit, attempt.run())); // a result that came in time counts
    std::optional<ProbeResult> result = attempt.takeResult();
    if (!result) {
        co_return ProbeTimeout();
    }
    co_return std::move(*result);
}

bool LinuxProbe::maySendDatagram(const IpAddress& address) const {
    const IpAddress plain = withoutMapping(address);
    const std::optional<std::uint32_t> zone = zoneIndex(plain);
    if (!zone) {
        return true;
    }
    const Tcp::endpoint to = endpointOf(plain, *zone, discardPort);
    const int family = to.protocol() == Tcp::v6() ? AF_INET6 : AF_INET;
    const detail::Descriptor socket(::socket(family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    return !socket.isOpen() ||
           ::sendto(socket.get(), nullptr, 0, MSG_NOSIGNAL, to.data(), static_cast<socklen_t>(to.size())) >= 0 ||
           errno != EPERM;
}

} // namespace orlinth::platform
