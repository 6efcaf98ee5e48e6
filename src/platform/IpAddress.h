#pragma once

#include "platform/NetworkInterfaces.h"

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>

namespace orlinth::platform {

/// An IPv6 address, first byte first, and the interface that a literal names behind "%".
struct Ipv6Address {
    std::array<std::uint8_t, 16> bytes{};
    std::string zone; ///< "eth0", as it was written; "" if there is none

    friend auto operator<=>(const Ipv6Address&, const Ipv6Address&) = default;
};

/// An address of either kind. Two are equal if their bytes and their zones are.
using IpAddress = std::variant<Ipv4Address, Ipv6Address>;

/// The address that a literal stands for: four decimal numbers without leading zeros, or a text form of IPv6 (RFC 4291
/// §2.2) with or without a zone (RFC 4007 §11). Nothing for any other text, white space and brackets included.
[[nodiscard]] std::optional<IpAddress> parseIpAddress(const std::string& literal);

/// The literal of an address, as parseIpAddress() takes it: "192.168.1.7", "fe80::1%eth0" (RFC 5952).
[[nodiscard]] std::string textOf(const IpAddress& address);

/// Whether an IPv6 address holds on one link only (fe80::/10), so that it needs a zone to be reached.
[[nodiscard]] bool isLinkLocal(const Ipv6Address& address) noexcept;

/// "192.168.1.7" of "192.168.1.7:40112", and "fe80::1%eth0" of "[fe80::1%eth0]:40112".
[[nodiscard]] std::string addressOfEndpoint(const std::string& endpoint);

/// The IPv4 address that an IPv6 address of the form ::ffff:a.b.c.d stands for; nothing of another one.
[[nodiscard]] std::optional<Ipv4Address> unmapped(const Ipv6Address& address);

/// Whether whoever has this address is in a network of one's own: loopback, link-local, private (RFC 1918, RFC 4193),
/// or in a network that one of these interfaces is in. False for a text that is no address.
[[nodiscard]] bool isNearby(const std::string& address, const NetworkInterfaces& interfaces);

} // namespace orlinth::platform
