#include "OrlinthCore/Pairing/DeviceInfo.h"

#include "base/Hex.h"
#include "base/Text.h"
#include "platform/SystemError.h"

#include <algorithm>
#include <bit>
#include <functional>

namespace orlinth {
namespace {

using platform::InterfaceAddress;
using platform::Ipv4Address;
using Entries = std::vector<InterfaceAddress>;

constexpr std::size_t macBytes = 6;

Entries listOf(const platform::NetworkInterfaces& interfaces) {
    try {
        Entries entries = interfaces.list();
        if (entries.empty()) {
            throw DeviceInfoError::getifaddrsFailed(0);
        }
        return entries;
    } catch (const platform::SystemError& error) {
        throw DeviceInfoError::getifaddrsFailed(error.code().value());
    }
}

bool isLinkLocal(const Ipv4Address& address) {
    return address[0] == 169 && address[1] == 254;
}

/// Whether a phone in the same local network can be expected to reach this address.
bool isReachable(const InterfaceAddress& entry) {
    const auto* const ipv4 = std::get_if<InterfaceAddress::Ipv4>(&entry.address);
    return ipv4 != nullptr && entry.isUp && entry.isRunning && !entry.isLoopback && !entry.isPointToPoint &&
           !isLinkLocal(ipv4->address);
}

const InterfaceAddress& chosenOf(const Entries& entries, const std::function<bool(const InterfaceAddress&)>& isChosen) {
    const auto chosen = std::ranges::find_if(entries, isChosen);
    if (chosen == entries.end()) {
        throw DeviceInfoError::noActiveInterface();
    }
    return *chosen;
}

std::string cidrOf(const InterfaceAddress::Ipv4& ipv4) {
    const Ipv4Address mask = ipv4.netmask.value_or(Ipv4Address{});
    Ipv4Address network{};
    int prefixLength = 0;
    for (std::size_t i = 0; i < network.size(); ++i) {
        network[i] = ipv4.address[i] & mask[i];
        prefixLength += std::popcount(mask[i]);
    }
    return platform::dottedDecimal(network) + "/" + std::to_string(prefixLength);
}

/// The first address of six bytes that the interface has; "" if it has none.
std::string macOf(const Entries& entries, const std::string& interface) {
    for (const InterfaceAddress& entry : entries) {
        const auto* const hardware = std::get_if<InterfaceAddress::Hardware>(&entry.address);
        if (hardware == nullptr || entry.name != interface || hardware->address.size() != macBytes) {
            continue;
        }
        std::string text;
        for (const std::byte byte : hardware->address) {
            text += (text.empty() ? "" : ":") + hexEncode(ByteView(&byte, 1));
        }
        return text;
    }
    return "";
}

/// `chosen` is one of the entries, with an IPv4 address.
DeviceInfo deviceOf(const platform::NetworkInterfaces& interfaces, const Entries& entries,
                    const InterfaceAddress& chosen) {
    const auto& ipv4 = std::get<InterfaceAddress::Ipv4>(chosen.address);
    DeviceInfo device{.interface = chosen.name,
                      .ipv4 = platform::dottedDecimal(ipv4.address),
                      .subnetCIDR = cidrOf(ipv4),
                      .macAddress = macOf(entries, chosen.name),
                      .hostname = DeviceInfo::hostnameString(interfaces)};
    // A tunnel has no hardware address; whoever names one does not want to hear of it.
    if (device.macAddress.empty() && !chosen.isPointToPoint) {
        throw DeviceInfoError::macNotFound(chosen.name);
    }
    return device;
}

} // namespace

DeviceInfoError DeviceInfoError::getifaddrsFailed(std::int32_t number) {
    return {Case::getifaddrsFailed, "getifaddrs failed (errno " + std::to_string(number) + ")", number};
}

DeviceInfoError DeviceInfoError::macNotFound(const std::string& interface) {
    return {Case::macNotFound, "MAC address not found for " + interface};
}

DeviceInfoError DeviceInfoError::noActiveInterface() {
    return {Case::noActiveInterface, "no active non-loopback IPv4 interface"};
}

DeviceInfo DeviceInfo::current(const platform::NetworkInterfaces& interfaces, const std::optional<std::string>& named) {
    const Entries entries = listOf(interfaces);
    const InterfaceAddress& chosen = chosenOf(entries, [&named](const InterfaceAddress& entry) {
        return named
                   ? entry.name == *named && entry.isUp && std::holds_alternative<InterfaceAddress::Ipv4>(entry.address)
                   : isReachable(entry);
    });
    return deviceOf(interfaces, entries, chosen);
}

DeviceInfo DeviceInfo::withAddress(const platform::NetworkInterfaces& interfaces,
                                   const platform::Ipv4Address& address) {
    const Entries entries = listOf(interfaces);
    const InterfaceAddress& chosen = chosenOf(entries, [&address](const InterfaceAddress& entry) {
        const auto* const ipv4 = std::get_if<InterfaceAddress::Ipv4>(&entry.address);
        return ipv4 != nullptr && entry.isUp && ipv4->address == address;
    });
    return deviceOf(interfaces, entries, chosen);
}

std::string DeviceInfo::hostnameString(const platform::NetworkInterfaces& interfaces) {
    const std::string name = interfaces.hostName();
    return toUtf8(std::string_view(name).substr(0, name.find('\0')));
}

} // namespace orlinth
