#pragma once

#include "OrlinthHost/Phones/AddressBook.h"
#include "OrlinthHost/Phones/NetworkIdentity.h"
#include "fakes/World.h"

#include <optional>
#include <string>

namespace orlinth::host {

/// Where this computer is in tests of how phones are found: 192.168.7.10 by the Wi-Fi wlan0, in 192.168.7.0/24 behind
/// the router 192.168.7.1.
inline const MacAddress routerMac = *MacAddress::parse("3e:5a:b4:01:02:03");
inline const MacAddress phoneMac = *MacAddress::parse("9c:28:f7:00:00:07");
inline const MacAddress otherMac = *MacAddress::parse("9c:28:f7:00:00:08"); ///< of another device there
inline const NetworkId homeNetwork = NetworkId::of({192, 168, 7, 0}, 24, routerMac);

[[nodiscard]] inline platform::IpAddress ip(const std::string& literal) {
    return platform::parseIpAddress(literal).value();
}

[[nodiscard]] inline HostAddress host(const std::string& literal) {
    return HostAddress::parse(literal).value();
}

[[nodiscard]] inline Bytes bytesOf(const MacAddress& mac) {
    Bytes bytes;
    for (const std::uint8_t byte : mac.raw()) {
        bytes.push_back(std::byte{byte});
    }
    return bytes;
}

/// What the neighbour table says of a host.
[[nodiscard]] inline platform::Neighbour neighbour(const std::string& literal, platform::NeighbourState state,
                                                   const std::optional<MacAddress>& mac = {},
                                                   const std::string& interface = "wlan0") {
    return fakes::MemoryNeighbours::entry(ip(literal), state, mac ? bytesOf(*mac) : Bytes(), interface);
}

/// This computer gets an address in the network of that router, by wlan0 and nothing else.
inline void join(fakes::World& world, const platform::Ipv4Address& address, const std::string& router) {
    world.interfaces.addresses = {fakes::FakeNetworkInterfaces::ipv4("wlan0", address)};
    world.interfaces.addresses.front().isWireless = true;
    world.routes.gateways["wlan0"] = ip(router);
}

/// It comes home, and speaks to the router.
inline void joinHome(fakes::World& world) {
    join(world, {192, 168, 7, 10}, "192.168.7.1");
    world.neighbours.put(neighbour("192.168.7.1", platform::NeighbourState::reachable, routerMac));
}

} // namespace orlinth::host
