#pragma once

#include "base/Bytes.h"

#include <array>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace orlinth::platform {

/// An IPv4 address or mask, first byte first ("network order").
using Ipv4Address = std::array<std::uint8_t, 4>;

/// "192.168.1.23".
[[nodiscard]] std::string dottedDecimal(const Ipv4Address& address);

/// One entry of the system's list of interface addresses; an interface has one for each of its addresses.
struct InterfaceAddress {
    struct Ipv4 {
        Ipv4Address address{};
        std::optional<Ipv4Address> netmask;
    };
    struct Ipv6 {
        std::array<std::uint8_t, 16> address{};
        int prefixBits = 128; ///< how many of the first bits name the network
    };
    /// A link-layer address, of as many bytes as the link has; Ethernet has 6, some have none.
    struct Hardware {
        Bytes address;
    };

    std::string name; ///< the interface, for example "enp3s0"
    bool isUp = false;
    bool isRunning = false; ///< the link is there
    bool isLoopback = false;
    bool isPointToPoint = false;
    bool isWireless = false;  ///< Wi-Fi
    bool isTunDevice = false; ///< its packets go to a program and not to a wire (tun or tap): mostly a VPN's
    std::variant<std::monostate, Ipv4, Hardware, Ipv6> address; ///< monostate: of a family that nobody here asks for
};

/// What the computer knows of its place in the network. Calls do not block; any thread.
class NetworkInterfaces {
public:
    virtual ~NetworkInterfaces() = default;
    /// Every address of every interface, in the system's own order. @throws SystemError with the code of the call
    [[nodiscard]] virtual std::vector<InterfaceAddress> list() const = 0;
    /// The kernel's name of this computer, as it is, up to 255 bytes; "" if it has none.
    [[nodiscard]] virtual std::string hostName() const = 0;
};

} // namespace orlinth::platform
