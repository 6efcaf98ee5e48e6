#include "platform/linux/LinuxNetworkInterfaces.h"

#include "platform/SystemError.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <ifaddrs.h>
#include <memory>
#include <net/if.h>
#include <netinet/in.h>
#include <netpacket/packet.h>
#include <unistd.h>

namespace orlinth::platform {
namespace {

/// An entry's address may lie unaligned and be longer or shorter than its type: it is copied, never looked at in place.
template <typename Address>
Address copied(const sockaddr* from) {
    Address address{};
    std::memcpy(&address, from, sizeof address);
    return address;
}

Ipv4Address ipv4Of(const sockaddr* from) {
    Ipv4Address address{};
    const auto socketAddress = copied<sockaddr_in>(from);
    std::memcpy(address.data(), &socketAddress.sin_addr, address.size());
    return address;
}

InterfaceAddress::Ipv6 ipv6Of(const ifaddrs& entry) {
    InterfaceAddress::Ipv6 ipv6;
    const auto socketAddress = copied<sockaddr_in6>(entry.ifa_addr);
    std::memcpy(ipv6.address.data(), &socketAddress.sin6_addr, ipv6.address.size());
    if (entry.ifa_netmask != nullptr) {
        std::array<std::uint8_t, 16> mask{};
        const auto netmask = copied<sockaddr_in6>(entry.ifa_netmask);
        std::memcpy(mask.data(), &netmask.sin6_addr, mask.size());
        ipv6.prefixBits = 0;
        for (const std::uint8_t part : mask) {
            ipv6.prefixBits += std::popcount(part);
        }
    }
    return ipv6;
}

Bytes hardwareAddressOf(const sockaddr* from) {
    // The record has room for 8 bytes. The C library keeps longer ones (InfiniBand's have 20) behind them, up to 24,
    // and gives a length only where all of them are there.
    constexpr std::size_t keptBytes = 24;
    const std::size_t length = std::min<std::size_t>(copied<sockaddr_ll>(from).sll_halen, keptBytes);
    const ByteView address(reinterpret_cast<const std::byte*>(from) + offsetof(sockaddr_ll, sll_addr), length);
    return toBytes(address);
}

/// An IPv4 address may have a label, "eth0:1", in place of the name; an interface's name has no colon.
std::string nameOf(const ifaddrs& entry) {
    const std::string_view label(entry.ifa_name);
    return std::string(label.substr(0, label.find(':')));
}

/// Whether sysfs has this file of an interface. It has none of an interface of another network namespace than its own.
bool hasInSysfs(const std::string& interface, const char* file) {
    return ::access(("/sys/class/net/" + interface + "/" + file).c_str(), F_OK) == 0;
}

InterfaceAddress converted(const ifaddrs& entry) {
    const auto isSet = [&entry](unsigned flag) { return (entry.ifa_flags & flag) != 0; };
    InterfaceAddress address{.name = nameOf(entry),
                             .isUp = isSet(IFF_UP),
                             .isRunning = isSet(IFF_RUNNING),
                             .isLoopback = isSet(IFF_LOOPBACK),
                             .isPointToPoint = isSet(IFF_POINTOPOINT),
                             .isWireless = false,
                             .isTunDevice = false,
                             .address = {}};
    address.isWireless = hasInSysfs(address.name, "phy80211");
    address.isTunDevice = hasInSysfs(address.name, "tun_flags");
    if (entry.ifa_addr == nullptr) {
        return address;
    }
    if (entry.ifa_addr->sa_family == AF_INET) {
        InterfaceAddress::Ipv4 ipv4{.address = ipv4Of(entry.ifa_addr), .netmask = std::nullopt};
        if (entry.ifa_netmask != nullptr) {
            ipv4.netmask = ipv4Of(entry.ifa_netmask);
        }
        address.address = ipv4;
    } else if (entry.ifa_addr->sa_family == AF_INET6) {
        address.address = ipv6Of(entry);
    } else if (entry.ifa_addr->sa_family == AF_PACKET) {
        address.address = InterfaceAddress::Hardware{.address = hardwareAddressOf(entry.ifa_addr)};
    }
    return address;
}

} // namespace

std::vector<InterfaceAddress> LinuxNetworkInterfaces::list() const {
    ifaddrs* first = nullptr;
    if (::getifaddrs(&first) != 0) {
        throw SystemError::fromErrno();
    }
    const std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)> owner(first, &::freeifaddrs);
    std::vector<InterfaceAddress> addresses;
    for (const ifaddrs* entry = first; entry != nullptr; entry = entry->ifa_next) {
        addresses.push_back(converted(*entry));
    }
    return addresses;
}

std::string LinuxNetworkInterfaces::hostName() const {
    std::array<char, 256> name{};
    return ::gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "";
}

} // namespace orlinth::platform
