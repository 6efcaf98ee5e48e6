#include "OrlinthHost/Reach/FinderPlan.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace orlinth::host {
namespace {

using platform::Ipv4Address;

/// RFC 1918.
bool isPrivate(const Ipv4Address& address) {
    return address[0] == 10 || (address[0] == 172 && (address[1] & 0xF0) == 16) ||
           (address[0] == 192 && address[1] == 168);
}

std::optional<Ipv4Address> ipv4Of(const HostAddress& host) {
    const auto address = platform::parseIpAddress(host.literal());
    const auto* const ipv4 = address ? std::get_if<Ipv4Address>(&*address) : nullptr;
    return ipv4 != nullptr ? std::optional(*ipv4) : std::nullopt;
}

/// The last address of a network is for all of its hosts, the first is its name.
bool isOfOneHost(const OwnNetwork& network, const Ipv4Address& address) {
    constexpr int bits = 32;
    std::uint32_t host = 0;
    for (const std::uint8_t byte : address) {
        host = host << 8U | byte;
    }
    const std::uint32_t mask = network.prefixBits >= bits ? 0 : ~std::uint32_t{0} >> network.prefixBits;
    return (host & mask) != 0 && (host & mask) != mask;
}

/// Collects targets, each once.
class Targets {
public:
    explicit Targets(const SoughtPhone& phone) : phone_(phone) {}

    /// Whether it counts as one more.
    bool add(const std::optional<HostAddress>& host) {
        if (!host || (phone_.recorded && host->isSameAs(*phone_.recorded))) {
            return false;
        }
        const std::optional<platform::IpAddress> address = platform::parseIpAddress(host->literal());
        FinderTarget target{.address = address.value_or(platform::IpAddress()), .port = phone_.port};
        if (!address || std::ranges::find(list_, target) != list_.end()) {
            return false;
        }
        list_.push_back(std::move(target));
        return true;
    }
    [[nodiscard]] std::vector<FinderTarget> take() { return std::move(list_); }

private:
    const SoughtPhone& phone_;
    std::vector<FinderTarget> list_;
};

std::optional<HostAddress> hostOf(const platform::Neighbour& entry) {
    return HostAddress::parse(platform::textOf(entry.address), entry.interface);
}

} // namespace

std::optional<FindSetting> findSettingFrom(std::string_view text) noexcept {
    if (text == "known") {
        return FindSetting::known;
    }
    if (text == "always") {
        return FindSetting::always;
    }
    return text == "never" ? std::optional(FindSetting::never) : std::nullopt;
}

bool SoughtPhone::wasMetIn(const std::optional<NetworkId>& network) const {
    return network &&
           std::ranges::any_of(met, [&network](const KnownAddress& address) { return address.network == network; });
}

std::vector<MacAddress> SoughtPhone::macs() const {
    std::vector<MacAddress> all;
    if (recordedMac) {
        all.push_back(*recordedMac);
    }
    for (const KnownAddress& address : met) {
        if (address.mac && std::ranges::find(all, *address.mac) == all.end()) {
            all.push_back(*address.mac);
        }
    }
    return all;
}

FinderPlan::FinderPlan(FindSetting find, std::vector<OwnNetwork> networks, std::vector<platform::Neighbour> neighbours)
    : find_(find), networks_(std::move(networks)), neighbours_(std::move(neighbours)) {}

InterfaceKind FinderPlan::kindOf(const std::string& interface) const {
    const auto network =
        std::ranges::find_if(networks_, [&](const OwnNetwork& one) { return one.interface == interface; });
    return network != networks_.end() ? network->kind : InterfaceKind::real;
}

bool FinderPlan::isOwn(const Ipv4Address& address) const {
    return std::ranges::any_of(networks_, [&](const OwnNetwork& network) { return network.address == address; });
}

/// Whether hosts of that network are asked of which nothing is known.
bool FinderPlan::maySearch(const OwnNetwork& network, const SoughtPhone& phone) const {
    return network.kind == InterfaceKind::real && isPrivate(network.address) &&
           (find_ == FindSetting::always || phone.wasMetIn(network.id));
}

std::vector<FinderTarget> FinderPlan::nearby(const SoughtPhone& phone) const {
    if (find_ == FindSetting::never) {
        return {};
    }
    Targets targets(phone);
    std::size_t left = maxRemembered;
    for (const KnownAddress& candidate : phone.candidates) {
        left -= left > 0 && targets.add(candidate.host) ? 1 : 0;
    }
    left = maxByMac;
    const std::vector<MacAddress> macs = phone.macs();
    for (const platform::Neighbour& entry : neighbours_) {
        const std::optional<MacAddress> mac = usableMacOf(entry);
        const bool isIts = mac && std::ranges::find(macs, *mac) != macs.end();
        if (left > 0 && isIts && kindOf(entry.interface) != InterfaceKind::tunnel) {
            left -= targets.add(hostOf(entry)) ? 1 : 0;
        }
    }
    left = maxOthers;
    for (const OwnNetwork& network : networks_) {
        const bool mayBeThePhone = network.gateway && network.kind == InterfaceKind::real && isPrivate(network.address);
        if (left > 0 && mayBeThePhone && !phone.wasMetIn(network.id)) {
            left -= targets.add(HostAddress::parse(platform::textOf(*network.gateway), network.interface)) ? 1 : 0;
        }
    }
    for (const OwnNetwork& network : networks_) {
        for (const platform::Neighbour& entry : neighbours_) {
            const auto* const ipv4 = std::get_if<Ipv4Address>(&entry.address);
            const bool isThere = ipv4 != nullptr && entry.interface == network.interface && network.contains(*ipv4);
            const bool isRouter = network.gateway == entry.address;
            if (left > 0 && isThere && !isRouter && usableMacOf(entry) && maySearch(network, phone)) {
                left -= targets.add(hostOf(entry)) ? 1 : 0;
            }
        }
    }
    return targets.take();
}

bool FinderPlan::waitsForRouter() const {
    return find_ != FindSetting::never && std::ranges::any_of(networks_, [](const OwnNetwork& network) {
               return network.gateway && !network.id && network.kind == InterfaceKind::real &&
                      isPrivate(network.address);
           });
}

/// That of the recorded address, else the first in which the phone may be searched.
const OwnNetwork* FinderPlan::networkToSweep(const SoughtPhone& phone) const {
    constexpr int longestPrefix = 30; // a longer one has no room for others
    const std::optional<Ipv4Address> recorded = phone.recorded ? ipv4Of(*phone.recorded) : std::nullopt;
    const OwnNetwork* chosen = nullptr;
    for (const OwnNetwork& network : networks_) {
        if (network.prefixBits > longestPrefix || !maySearch(network, phone)) {
            continue;
        }
        if (recorded && network.contains(*recorded)) {
            return &network;
        }
        chosen = chosen != nullptr ? chosen : &network;
    }
    return chosen;
}

std::optional<FinderPlan::Sweep> FinderPlan::sweep(const SoughtPhone& phone) const {
    const bool mayEver = find_ != FindSetting::never && neighbours_.size() <= crowdedTable;
    const OwnNetwork* const network = mayEver ? networkToSweep(phone) : nullptr;
    if (network == nullptr) {
        return std::nullopt;
    }
    const std::optional<Ipv4Address> recorded = phone.recorded ? ipv4Of(*phone.recorded) : std::nullopt;
    Ipv4Address last = network->address;
    if (recorded && network->contains(*recorded)) {
        last = *recorded;
    } else {
        for (const KnownAddress& address : phone.met) { // the best first
            const std::optional<Ipv4Address> known = ipv4Of(address.host);
            if (known && address.network == network->id && network->contains(*known)) {
                last = *known;
                break;
            }
        }
    }
    // A network without a router's hardware address has no identity; of two such ones the subnet has to do.
    static const MacAddress nobody = *MacAddress::fromRaw({0x02, 0, 0, 0, 0, 0x01});
    Sweep sweep{.interface = network->interface,
                .claim = network->id ? *network->id : NetworkId::of(network->address, network->prefixBits, nobody),
                .addresses = {}};
    constexpr int lastByte = 255;
    for (int distance = 0; distance <= lastByte; ++distance) {
        for (const int host : {last[3] + distance, last[3] - distance}) {
            const Ipv4Address address{last[0], last[1], last[2], static_cast<std::uint8_t>(host)};
            const bool isHost = host > 0 && host < lastByte && (distance > 0 || sweep.addresses.empty());
            if (isHost && address != recorded && network->contains(address) && isOfOneHost(*network, address) &&
                !isOwn(address)) {
                sweep.addresses.push_back(address);
            }
        }
    }
    return sweep;
}

} // namespace orlinth::host
