#pragma once

#include "platform/NetworkInterfaces.h"

namespace orlinth::platform {

/// An IPv6 address, first byte first, and the interface that a literal names behind "%".
struct Ipv6Address {
    std::array<std::uint8_t, 16> bytes{};
    std::string zone; ///< "eth0", as it was written; "" if there is none
};

/// The address that a literal stands for: four decimal numbers without leading zeros, or a text form of IPv6 (RFC 4291
/// §2.2) with or without a zone (RFC 4007 §11). Nothing for any other text, white space and brackets included.
[[nodiscard]] std::optional<std::variant<Ipv4Address, Ipv6Address>> parseIpAddress(const std::string& literal);

/// "192.168.1.7" of "192.168.1.7:40112", and "fe80::1%eth0" of "[fe80::1%eth0]:40112".
[[nodiscard]] std::string addressOfEndpoint(const std::string& endpoint);

/// The IPv4 address that an IPv6 address of the form ::ffff:a.b.c.d stands for; nothing of another one.
[[nodiscard]] std::optional<Ipv4Address> unmapped(const Ipv6Address& address);

/// Whether whoever has this address is in a network of one's own: loopback, link-local, private (RFC 1918, RFC 4193),
/// or in a network that one of these interfaces is in. False for a text that is no address.
[[nodiscard]] bool isNearby(const std::string& address, const NetworkInterfaces& interfaces);

} // namespace orlinth::platform
