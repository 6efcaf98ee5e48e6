#pragma once

#include "OrlinthHost/Phones/AddressBook.h"
#include "OrlinthHost/Phones/NetworkIdentity.h"
#include "platform/System.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace orlinth::host {

/// What is at the other end of an interface.
enum class InterfaceKind {
    real,           ///< a cable or Wi-Fi, as far as can be told
    tunnel,         ///< a VPN or a modem: one other end
    containerBridge ///< programs on this computer: containers and virtual machines
};

/// A network that this computer is in, with an address of its own.
struct OwnNetwork {
    std::string interface; ///< "wlan0"
    platform::Ipv4Address address{};
    int prefixBits = 32; ///< how many of the address's first bits name the network
    InterfaceKind kind = InterfaceKind::real;
    bool isWireless = false;
    std::optional<platform::IpAddress> gateway = {}; ///< the router to the internet by this interface
    std::optional<MacAddress> gatewayMac = {};       ///< as far as it has been spoken to
    std::optional<NetworkId> id = {};                ///< of those whose router's hardware address is known

    /// Whether the address is in this network, this computer's own included.
    [[nodiscard]] bool contains(const platform::Ipv4Address& other) const noexcept;
};

/// Where this computer is just now: one look at its interfaces, routes and neighbour table.
///
/// A look sends no packet, needs no privileges and does not block. What the system does not say is absent, and never
/// an exception.
///
/// A plain value but for the routes, which are asked anew and outlive it. Any thread.
class Whereabouts {
public:
    [[nodiscard]] static Whereabouts look(const platform::System& system);

    /// Of IPv4, of interfaces that are up and running, in the system's order; without loopback and 169.254.0.0/16.
    [[nodiscard]] const std::vector<OwnNetwork>& networks() const noexcept { return networks_; }
    /// The neighbour table as it was.
    [[nodiscard]] const std::vector<platform::Neighbour>& neighbours() const noexcept { return neighbours_; }
    [[nodiscard]] InterfaceKind kindOf(const std::string& interface) const;

    /// Whether the host can be reached without a router, and not through a tunnel.
    [[nodiscard]] bool isOnLink(const HostAddress& host) const;
    /// The own network that the host is on the link of: for IPv4 the one whose prefix it has, the longest counts; for
    /// IPv6 that of the interface. Null if there is none. Lives as long as this.
    [[nodiscard]] const OwnNetwork* ownNetworkOf(const HostAddress& host) const;
    /// Its identity.
    [[nodiscard]] std::optional<NetworkId> networkOf(const HostAddress& host) const;
    /// For AddressMemory::candidates(), which asks while this lives.
    [[nodiscard]] Surroundings surroundings() const;
    /// A phone has just proved its key there: the hardware address is what this look has found in the neighbour table,
    /// so look anew after the proof.
    [[nodiscard]] Meeting meetingAt(const HostAddress& host) const;

private:
    explicit Whereabouts(const platform::Routes& routes) noexcept : routes_(&routes) {}
    [[nodiscard]] std::optional<std::string> linkOf(const HostAddress& host) const;
    [[nodiscard]] const platform::Neighbour* entryOf(const HostAddress& host) const;

    const platform::Routes* routes_;
    std::vector<OwnNetwork> networks_;
    std::vector<platform::Neighbour> neighbours_;
    std::map<std::string, InterfaceKind> kinds_; ///< by interface
};

/// The hardware address of an entry that is good for something: known, one device's, and nothing is known against it.
[[nodiscard]] std::optional<MacAddress> usableMacOf(const platform::Neighbour& entry);

} // namespace orlinth::host
