#include "platform/linux/LinuxRoutes.h"

#include "platform/SystemError.h"
#include "platform/linux/NetlinkSocket.h"

#include <cerrno>
#include <linux/rtnetlink.h>
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

} // namespace

std::variant<Route, NoRoute> LinuxRoutes::to(const IpAddress& address) const {
    constexpr std::uint32_t sequence = 1;
    const std::optional<std::uint32_t> interface = zoneIndex(address);
    if (!interface) {
        return noRoute(ENODEV);
    }
    NetlinkAnswer answer = askKernel(routeRequest(sequence, address, *interface), sequence);
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

} // namespace orlinth::platform
