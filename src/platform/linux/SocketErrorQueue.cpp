#include "platform/linux/SocketErrorQueue.h"

#include "platform/linux/Descriptor.h"
#include "platform/linux/TcpListener.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <ctime> // linux/errqueue.h needs timespec
#include <linux/errqueue.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace orlinth::platform {
namespace {

/// cmsghdr without the array behind it.
struct ControlHeader {
    std::size_t size; ///< with this header
    int level;
    int kind;
};
static_assert(sizeof(ControlHeader) == CMSG_LEN(0));

/// Copies a structure that may lie unaligned; nothing if it is not all there.
template <typename Structure>
std::optional<Structure> copied(ByteView bytes) {
    if (bytes.size() < sizeof(Structure)) {
        return std::nullopt;
    }
    Structure structure{};
    std::memcpy(&structure, bytes.data(), sizeof structure);
    return structure;
}

/// Whose message it was: a socket address behind the error.
std::optional<IpAddress> senderOf(ByteView bytes, std::uint8_t origin) {
    const auto family = copied<sa_family_t>(bytes);
    if (origin == SO_EE_ORIGIN_ICMP && family == AF_INET) {
        if (const auto v4 = copied<sockaddr_in>(bytes)) {
            Ipv4Address address{};
            std::memcpy(address.data(), &v4->sin_addr, address.size());
            return address;
        }
    }
    if (origin == SO_EE_ORIGIN_ICMP6 && family == AF_INET6) {
        if (const auto v6 = copied<sockaddr_in6>(bytes)) {
            Ipv6Address address;
            std::memcpy(address.bytes.data(), &v6->sin6_addr, address.bytes.size());
            return address;
        }
    }
    return std::nullopt;
}

std::optional<SocketErrorReport> reportOf(ByteView content) {
    const auto error = copied<sock_extended_err>(content);
    if (!error) {
        return std::nullopt;
    }
    SocketErrorReport report{.errorNumber = static_cast<int>(error->ee_errno), .icmp = std::nullopt};
    if (const auto sender = senderOf(content.subspan(sizeof *error), error->ee_origin)) {
        report.icmp = IcmpReport{.type = error->ee_type, .code = error->ee_code, .from = *sender};
    }
    return report;
}

} // namespace

std::optional<SocketErrorReport> parseErrorQueueControl(ByteView control) {
    while (const auto header = copied<ControlHeader>(control)) {
        if (header->size < sizeof *header || header->size > control.size()) {
            return std::nullopt; // where the next one begins is not known
        }
        const bool isReport = (header->level == IPPROTO_IP && header->kind == IP_RECVERR) ||
                              (header->level == IPPROTO_IPV6 && header->kind == IPV6_RECVERR);
        if (isReport) {
            return reportOf(control.subspan(sizeof *header, header->size - sizeof *header));
        }
        control = control.subspan(std::min(CMSG_ALIGN(header->size), control.size()));
    }
    return std::nullopt;
}

void keepErrorReports(int socket, bool isIpv6, bool keeps) {
    if (isIpv6) {
        setSocketOption(socket, IPPROTO_IPV6, IPV6_RECVERR, keeps ? 1 : 0);
    } else {
        setSocketOption(socket, IPPROTO_IP, IP_RECVERR, keeps ? 1 : 0);
    }
}

std::vector<SocketErrorReport> takeErrorReports(int socket) {
    std::vector<SocketErrorReport> reports;
    for (;;) {
        alignas(cmsghdr) std::array<std::byte, 512> control{};
        msghdr message{}; // the packet that could not be delivered is of no interest
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        if (detail::retried([&] { return ::recvmsg(socket, &message, MSG_ERRQUEUE | MSG_DONTWAIT); }) == -1) {
            return reports;
        }
        if (const auto report = parseErrorQueueControl(ByteView(control).first(message.msg_controllen))) {
            reports.push_back(*report);
        }
    }
}

} // namespace orlinth::platform
