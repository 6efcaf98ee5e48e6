#pragma once

#include "platform/IpAddress.h"

#include <cstdint>
#include <optional>
#include <string>
#include <system_error>
#include <variant>

namespace orlinth::platform {

/// The way that a packet to an address would take now.
struct Route {
    std::optional<IpAddress> gateway; ///< the router it goes through first; absent: the address is on the link itself
    std::uint32_t interfaceIndex = 0; ///< the system's number of the interface that it leaves by
    std::string interface;            ///< its name, for example "wlan0"; "" if it has gone meanwhile
    std::optional<IpAddress> source;  ///< the address of this computer that it would come from
    bool isThisComputer = false;      ///< the address is one of this computer's own

    /// Whether the address is in a network that this computer is in itself, and not its own.
    [[nodiscard]] bool isOnLink() const noexcept { return !gateway && !isThisComputer; }

    friend bool operator==(const Route&, const Route&) = default;
};

/// There is no way to the address. The code is what connecting to it would fail with: ENETUNREACH without a route;
/// EHOSTUNREACH, EACCES or EINVAL if an administrator has closed the way.
struct NoRoute {
    std::error_code code;

    friend bool operator==(const NoRoute&, const NoRoute&) = default;
};

/// The system's routing table. Nothing here sends a packet, and nothing needs privileges.
class Routes {
public:
    virtual ~Routes() = default;
    /// Where a packet to `address` would go, all rules and tables considered. Does not block; any thread.
    /// A zone that names no interface is NoRoute with ENODEV. @throws SystemError if the system cannot be asked
    [[nodiscard]] virtual std::variant<Route, NoRoute> to(const IpAddress& address) const = 0;
    /// The router that a packet of IPv4 for the internet would go through if it left by this interface, also while
    /// another one, such as a VPN's, is preferred. Nothing if there is no such router, or no such interface.
    /// Does not block; any thread. @throws SystemError if the system cannot be asked
    [[nodiscard]] virtual std::optional<IpAddress> gatewayBy(const std::string& interface) const = 0;
};

} // namespace orlinth::platform
