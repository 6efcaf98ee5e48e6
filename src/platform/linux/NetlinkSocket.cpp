#include "platform/linux/NetlinkSocket.h"

#include "platform/SystemError.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <utility>

namespace orlinth::platform {
namespace {

using detail::checked;
using detail::Descriptor;

/// The kernel fills no more than this of a reader's buffer at once.
constexpr std::size_t longestDatagram = std::size_t{32} << 10U;

/// Whether more of the answer follows.
bool take(NetlinkMessage message, NetlinkAnswer& answer) {
    answer.isInterrupted = answer.isInterrupted || message.isInterrupted;
    if (std::holds_alternative<NetlinkOverrun>(message.body)) {
        throw SystemError::fromErrno(ENOBUFS);
    }
    if (const auto* const end = std::get_if<NetlinkEnd>(&message.body)) {
        answer.errorNumber = end->errorNumber;
        return false;
    }
    const bool isMultipart = message.isMultipart;
    answer.messages.push_back(std::move(message));
    return isMultipart;
}

} // namespace

NetlinkSocket::NetlinkSocket(std::uint32_t groups)
    : socket_(Descriptor::require(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE))) {
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = groups;
    checked([&] { return ::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address); });
}

void NetlinkSocket::lendTo(asio::posix::stream_descriptor& waiter) const {
    Descriptor waited = Descriptor::require(::fcntl(socket_.get(), F_DUPFD_CLOEXEC, 0));
    std::error_code code;
    static_cast<void>(waiter.assign(waited.get(), code));
    if (code) {
        throw SystemError(code);
    }
    static_cast<void>(waited.release());
}

void NetlinkSocket::send(ByteView request) {
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    checked([&] {
        return ::sendto(socket_.get(), request.data(), request.size(), 0, reinterpret_cast<const sockaddr*>(&kernel),
                        sizeof kernel);
    });
}

std::optional<NetlinkDatagram> NetlinkSocket::receive() {
    buffer_.resize(longestDatagram);
    for (;;) {
        sockaddr_nl sender{};
        iovec piece{.iov_base = buffer_.data(), .iov_len = buffer_.size()};
        msghdr message{};
        message.msg_name = &sender;
        message.msg_namelen = sizeof sender;
        message.msg_iov = &piece;
        message.msg_iovlen = 1;
        const ssize_t size = detail::retried([&] { return ::recvmsg(socket_.get(), &message, MSG_DONTWAIT); });
        if (size == -1) {
            if (errno == EAGAIN) {
                return std::nullopt;
            }
            throw SystemError::fromErrno();
        }
        if ((message.msg_flags & MSG_TRUNC) != 0) {
            throw SystemError::fromErrno(EMSGSIZE);
        }
        if (sender.nl_pid == 0) { // a process that has the privilege may send as well; it is not believed
            return parseNetlink(ByteView(buffer_).first(static_cast<std::size_t>(size)));
        }
    }
}

NetlinkAnswer askKernel(ByteView request, std::uint32_t sequence) {
    NetlinkSocket socket;
    socket.send(request);
    NetlinkAnswer answer;
    for (;;) {
        std::optional<NetlinkDatagram> datagram = socket.receive();
        if (!datagram) {
            throw SystemError::fromErrno(EAGAIN); // an answer without an end
        }
        if (datagram->isDamaged) {
            throw SystemError::fromErrno(EBADMSG);
        }
        for (NetlinkMessage& message : datagram->messages) {
            if (message.sequence == sequence && !take(std::move(message), answer)) {
                return answer;
            }
        }
    }
}

std::string interfaceName(std::uint32_t index) {
    std::array<char, IF_NAMESIZE> name{};
    return ::if_indextoname(index, name.data()) != nullptr ? name.data() : "";
}

std::optional<std::uint32_t> zoneIndex(const IpAddress& address) {
    const auto* const v6 = std::get_if<Ipv6Address>(&address);
    if (v6 == nullptr || v6->zone.empty()) {
        return 0;
    }
    const unsigned index = ::if_nametoindex(v6->zone.c_str());
    return index != 0 ? std::optional<std::uint32_t>(index) : std::nullopt;
}

IpAddress withZone(IpAddress address, const std::string& interface) {
    auto* const v6 = std::get_if<Ipv6Address>(&address);
    if (v6 != nullptr && isLinkLocal(*v6)) {
        v6->zone = interface;
    }
    return address;
}

} // namespace orlinth::platform
