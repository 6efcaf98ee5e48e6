#include "platform/IpAddress.h"

#include "platform/SystemError.h"

#include <climits>

#include <algorithm>
#include <span>

namespace orlinth::platform {
namespace {

using AddressBytes = std::span<const std::uint8_t>;

/// Whether the first `bits` bits are the same. Both are of one kind.
bool beginAlike(AddressBytes one, AddressBytes other, int bits) {
    for (std::size_t i = 0; i < one.size() && bits > 0; ++i, bits -= CHAR_BIT) {
        const int kept = std::min(bits, CHAR_BIT);
        const auto mask = static_cast<std::uint8_t>(0xFF << (CHAR_BIT - kept));
        if (((one[i] ^ other[i]) & mask) != 0) {
            return false;
        }
    }
    return true;
}

struct Network {
    std::array<std::uint8_t, 4> first;
    int bits;
};
constexpr std::array nearbyNetworks{Network{{10, 0, 0, 0}, 8}, Network{{172, 16, 0, 0}, 12},
                                    Network{{192, 168, 0, 0}, 16}, Network{{169, 254, 0, 0}, 16},
                                    Network{{127, 0, 0, 0}, 8}};

bool isNearbyByItself(const Ipv4Address& address) {
    return std::ranges::any_of(nearbyNetworks, [&address](const Network& network) {
        return beginAlike(address, network.first, network.bits);
    });
}

bool isNearbyByItself(const Ipv6Address& address) {
    constexpr std::array<std::uint8_t, 16> loopback{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    constexpr std::array<std::uint8_t, 16> uniqueLocal{0xFC};
    return address.bytes == loopback || beginAlike(address.bytes, uniqueLocal, 7) || isLinkLocal(address);
}

bool isOnLink(const Ipv4Address& address, const InterfaceAddress& entry) {
    const auto* const own = std::get_if<InterfaceAddress::Ipv4>(&entry.address);
    if (own == nullptr || !own->netmask) {
        return false;
    }
    const auto isSame = [&](std::size_t i) {
        return ((address.at(i) ^ own->address.at(i)) & own->netmask->at(i)) == 0;
    };
    return isSame(0) && isSame(1) && isSame(2) && isSame(3);
}

bool isOnLink(const Ipv6Address& address, const InterfaceAddress& entry) {
    const auto* const own = std::get_if<InterfaceAddress::Ipv6>(&entry.address);
    return own != nullptr && beginAlike(address.bytes, own->address, own->prefixBits);
}

template <typename Address>
bool isNearbyAddress(const Address& address, const NetworkInterfaces& interfaces) {
    if (isNearbyByItself(address)) {
        return true;
    }
    try {
        return std::ranges::any_of(interfaces.list(), [&address](const InterfaceAddress& entry) {
            return entry.isUp && !entry.isPointToPoint && isOnLink(address, entry);
        });
    } catch (const SystemError&) {
        return false; // of what cannot be looked up, the careful answer
    }
}

} // namespace

std::string addressOfEndpoint(const std::string& endpoint) {
    const std::string address = endpoint.substr(0, endpoint.rfind(':'));
    const bool isBracketed = address.size() > 2 && address.front() == '[' && address.back() == ']';
    return isBracketed ? address.substr(1, address.size() - 2) : address;
}

std::optional<Ipv4Address> unmapped(const Ipv6Address& address) {
    constexpr std::array<std::uint8_t, 16> mapped{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
    constexpr int mappedBits = 96;
    if (!beginAlike(address.bytes, mapped, mappedBits)) {
        return std::nullopt;
    }
    return Ipv4Address{address.bytes[12], address.bytes[13], address.bytes[14], address.bytes[15]};
}

bool isLinkLocal(const Ipv6Address& address) noexcept {
    return address.bytes[0] == 0xFE && (address.bytes[1] & 0xC0) == 0x80;
}

bool isNearby(const std::string& address, const NetworkInterfaces& interfaces) {
    const auto parsed = parseIpAddress(address);
    if (!parsed) {
        return false;
    }
    if (const auto* const v4 = std::get_if<Ipv4Address>(&*parsed)) {
        return isNearbyAddress(*v4, interfaces);
    }
    const auto& v6 = std::get<Ipv6Address>(*parsed);
    const std::optional<Ipv4Address> v4 = unmapped(v6);
    return v4 ? isNearbyAddress(*v4, interfaces) : isNearbyAddress(v6, interfaces);
}

} // namespace orlinth::platform
