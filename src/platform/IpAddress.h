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

} // namespace orlinth::platform
