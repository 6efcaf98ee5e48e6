#include "OrlinthHost/Phones/Whereabouts.h"

#include "platform/SystemError.h"

#include <climits>

#include <algorithm>
#include <array>
#include <bit>
#include <string_view>

namespace orlinth::host {
namespace {

using platform::InterfaceAddress;
using platform::Ipv4Address;

/// What the system says, or nothing if it does not.
template <typename Ask>
auto asFarAsKnown(Ask ask) -> decltype(ask()) {
    try {
        return ask();
    } catch (const platform::SystemError&) {
        return {};
    }
}

InterfaceKind kindOf(const InterfaceAddress& entry) {
    constexpr std::array<std::string_view, 7> containers{"docker", "br-", "virbr", "veth", "lxc", "lxd", "podman"};
    const auto isNamed = [&entry](std::string_view prefix) { return entry.name.starts_with(prefix); };
    if (entry.isPointToPoint || entry.isTunDevice || isNamed("tun")) {
        return InterfaceKind::tunnel;
    }
    return std::ranges::any_of(containers, isNamed) ? InterfaceKind::containerBridge : InterfaceKind::real;
}

bool isLinkLocal(const Ipv4Address& address) {
    return address[0] == 169 && address[1] == 254;
}

int prefixBitsOf(const InterfaceAddress::Ipv4& ipv4) {
    constexpr Ipv4Address oneHost{255, 255, 255, 255};
    int bits = 0;
    for (const std::uint8_t part : ipv4.netmask.value_or(oneHost)) {
        bits += std::popcount(part);
    }
    return bits;
}

bool isOf(const OwnNetwork& network, const std::string& interface) {
    return network.interface == interface;
}

} // namespace

std::optional<MacAddress> usableMacOf(const platform::Neighbour& entry) {
    using enum platform::NeighbourState;
    const bool isGood = entry.state == reachable || entry.state == stale || entry.state == delay ||
                        entry.state == probe || entry.state == permanent;
    if (!isGood || entry.hardware.size() != MacAddress::size) {
        return std::nullopt;
    }
    MacAddress::Raw raw{};
    std::ranges::transform(entry.hardware, raw.begin(),
                           [](std::byte byte) { return std::to_integer<std::uint8_t>(byte); });
    return MacAddress::fromRaw(raw);
}

bool OwnNetwork::contains(const Ipv4Address& other) const noexcept {
    int left = prefixBits;
    for (std::size_t i = 0; i < other.size(); ++i) {
        const int bits = std::clamp(left, 0, CHAR_BIT);
        const auto mask = static_cast<std::uint8_t>(0xFF << (CHAR_BIT - bits));
        if ((other.at(i) & mask) != (address.at(i) & mask)) {
            return false;
        }
        left -= bits;
    }
    return true;
}

Whereabouts Whereabouts::look(const platform::System& system) {
    Whereabouts here(system.routes);
    here.neighbours_ = asFarAsKnown([&] { return system.neighbours.list(); });
    const std::vector<InterfaceAddress> entries = asFarAsKnown([&] { return system.interfaces.list(); });
    for (const InterfaceAddress& entry : entries) {
        here.kinds_.insert_or_assign(entry.name, host::kindOf(entry));
        const auto* const ipv4 = std::get_if<InterfaceAddress::Ipv4>(&entry.address);
        const bool isUsable = entry.isUp && entry.isRunning && !entry.isLoopback;
        if (ipv4 == nullptr || !isUsable || isLinkLocal(ipv4->address)) {
            continue;
        }
        OwnNetwork network{.interface = entry.name,
                           .address = ipv4->address,
                           .prefixBits = prefixBitsOf(*ipv4),
                           .kind = host::kindOf(entry),
                           .isWireless = entry.isWireless};
        network.gateway = asFarAsKnown([&] { return system.routes.gatewayBy(entry.name); });
        const platform::Neighbour* router = nullptr;
        if (network.gateway) {
            if (const auto host = HostAddress::parse(platform::textOf(*network.gateway), entry.name)) {
                router = here.entryOf(*host);
            }
        }
        network.gatewayMac = router != nullptr ? usableMacOf(*router) : std::nullopt;
        if (network.gatewayMac) {
            network.id = NetworkId::of(network.address, network.prefixBits, *network.gatewayMac);
        }
        here.networks_.push_back(std::move(network));
    }
    return here;
}

InterfaceKind Whereabouts::kindOf(const std::string& interface) const {
    const auto place = kinds_.find(interface);
    return place != kinds_.end() ? place->second : InterfaceKind::real;
}

/// The interface whose link the host is on.
std::optional<std::string> Whereabouts::linkOf(const HostAddress& host) const {
    const std::optional<platform::IpAddress> address = platform::parseIpAddress(host.literal());
    if (!address) {
        return std::nullopt;
    }
    const auto way = asFarAsKnown(
        [&]() -> std::optional<std::variant<platform::Route, platform::NoRoute>> { return routes_->to(*address); });
    const auto* const route = way ? std::get_if<platform::Route>(&*way) : nullptr;
    const bool isLink = route != nullptr && route->isOnLink() && kindOf(route->interface) != InterfaceKind::tunnel;
    return isLink ? std::optional(route->interface) : std::nullopt;
}

bool Whereabouts::isOnLink(const HostAddress& host) const {
    return linkOf(host).has_value();
}

const OwnNetwork* Whereabouts::ownNetworkOf(const HostAddress& host) const {
    const std::optional<std::string> link = linkOf(host);
    if (!link) {
        return nullptr;
    }
    const std::optional<platform::IpAddress> address = platform::parseIpAddress(host.literal());
    const auto* const ipv4 = address ? std::get_if<Ipv4Address>(&*address) : nullptr;
    const OwnNetwork* best = nullptr;
    for (const OwnNetwork& network : networks_) {
        const bool holds = isOf(network, *link) && (ipv4 == nullptr || network.contains(*ipv4));
        if (!holds || (best != nullptr && (ipv4 == nullptr || best->prefixBits >= network.prefixBits))) {
            continue;
        }
        best = &network;
    }
    return best;
}

std::optional<NetworkId> Whereabouts::networkOf(const HostAddress& host) const {
    const OwnNetwork* const network = ownNetworkOf(host);
    return network != nullptr ? network->id : std::nullopt;
}

Surroundings Whereabouts::surroundings() const {
    Surroundings here;
    for (const OwnNetwork& network : networks_) {
        if (network.id && network.kind != InterfaceKind::tunnel) {
            here.networks.push_back(*network.id);
        }
    }
    here.isOnLink = [this](const HostAddress& host) { return isOnLink(host); };
    return here;
}

/// The entry of the host, on its interface if that is known. Null if there is none that is good for something.
const platform::Neighbour* Whereabouts::entryOf(const HostAddress& host) const {
    const auto isIt = [&host](const platform::Neighbour& entry) {
        const std::optional<HostAddress> other = HostAddress::parse(platform::textOf(entry.address), entry.interface);
        const bool isThere = host.interface().empty() || host.interface() == entry.interface;
        return other && isThere && other->isSameAs(host) && usableMacOf(entry);
    };
    const auto place = std::ranges::find_if(neighbours_, isIt);
    return place != neighbours_.end() ? &*place : nullptr;
}

Meeting Whereabouts::meetingAt(const HostAddress& host) const {
    const std::optional<std::string> link = linkOf(host);
    if (!link) {
        return {.host = host};
    }
    const std::optional<HostAddress> placed = HostAddress::parse(host.text(), *link);
    const HostAddress& met = placed ? *placed : host;
    const platform::Neighbour* const entry = entryOf(met);
    return {.host = met, .mac = entry != nullptr ? usableMacOf(*entry) : std::nullopt, .network = networkOf(met)};
}

} // namespace orlinth::host
