#include "platform/linux/LinuxRoutes.h"

#include "platform/SystemError.h"
#include "platform/linux/NetlinkSocket.h"

#include <cerrno>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <utility>

namespace orlinth::platform {
namespace {

NoRoute noRoute(int number) {
    return {.code = std::error_code(number, std::generic_category())};
}

/// What a packet is refused with that such a route leads nowhere; 0 for a route that leads somewhere.
int refusalOf(std::uint8_t type) noexcept {
    switch (type) {
    case RTN_UNREACHABLE:
        return EHOSTUNREACH;
    case RTN_PROHIBIT:
        return EACCES;
    case RTN_BLACKHOLE:
        return EINVAL;
    default:
        return 0;
    }
}

std::variant<Route, NoRoute> converted(NetlinkRoute route) {
    const int refusal = refusalOf(route.type);
    if (refusal != 0) {
        return noRoute(refusal);
    }
    Route way;
    way.interfaceIndex = route.interfaceIndex;
    way.interface = interfaceName(route.interfaceIndex);
    way.isThisComputer = route.type == RTN_LOCAL;
    if (route.gateway) {
        way.gateway = withZone(std::move(*route.gateway), way.interface);
    }
    if (route.source) {
        way.source = withZone(std::move(*route.source), way.interface);
    }
    return way;
}

/// What the kernel says of the way to an address by this interface; 0 for any.
std::variant<Route, NoRoute> ask(const IpAddress& address, std::uint32_t interface) {
    constexpr std::uint32_t sequence = 1;
    NetlinkAnswer answer = askKernel(routeRequest(sequence, address, interface), sequence);
    if (answer.errorNumber != 0) {
        return noRoute(answer.errorNumber);
    }
    for (NetlinkMessage& message : answer.messages) {
        if (auto* const route = std::get_if<NetlinkRoute>(&message.body)) {
            return converted(std::move(*route));
        }
    }
    throw SystemError::fromErrno(EBADMSG); // an answer to something else
}

} // namespace

std::variant<Route, NoRoute> LinuxRoutes::to(const IpAddress& address) const {
    const std::optional<std::uint32_t> interface = zoneIndex(address);
    return interface ? ask(address, *interface) : noRoute(ENODEV);
}

std::optional<IpAddress> LinuxRoutes::gatewayBy(const std::string& interface) const {
    constexpr Ipv4Address nobody{192, 0, 2, 1}; // for documentation (RFC 5737): only a default route leads there
    const std::uint32_t index = ::if_nametoindex(interface.c_str());
    if (index == 0) {
        return std::nullopt;
    }
    // Without a route by this interface the kernel takes the address to be on its link: a route without a gateway.
    const std::variant<Route, NoRoute> way = ask(nobody, index);
    const auto* const route = std::get_if<Route>(&way);
    return route != nullptr ? route->gateway : std::nullopt;
}

} // namespace orlinth::platform
