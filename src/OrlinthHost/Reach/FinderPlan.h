#pragma once

#include "OrlinthHost/Phones/AddressBook.h"
#include "OrlinthHost/Phones/Whereabouts.h"

#include <compare>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace orlinth::host {

/// Where a phone is looked for that does not answer at its recorded address.
enum class FindSetting {
    known,  ///< in networks in which it was met before; elsewhere only where one packet tells, see FinderPlan
    always, ///< in whatever network this computer is
    never   ///< nowhere: not one packet
};

/// Of "known", "always" and "never".
[[nodiscard]] std::optional<FindSetting> findSettingFrom(std::string_view text) noexcept;

/// One port of one host, which is asked to prove its key.
struct FinderTarget {
    platform::IpAddress address;
    std::uint16_t port = 0;

    auto operator<=>(const FinderTarget&) const = default;
};

/// What is known of a phone that is looked for.
struct SoughtPhone {
    std::uint16_t port = 0; ///< at which it receives
    /// The address of its record. Somebody else tries that; it is not asked here. Nothing if that is a name.
    std::optional<HostAddress> recorded;
    std::optional<MacAddress> recordedMac = {};
    std::vector<KnownAddress> candidates = {}; ///< as AddressMemory::candidates() has them here
    std::vector<KnownAddress> met = {};        ///< as AddressMemory::addressesOf() has them: everywhere

    [[nodiscard]] bool wasMetIn(const std::optional<NetworkId>& network) const;
    /// The hardware addresses it was met with.
    [[nodiscard]] std::vector<MacAddress> macs() const;
};

/// What is asked when a phone is looked for, in which order and how much at most; from plain values, without a packet.
///
///     nearby()   1. where it was met, as far as that can be reached from here            4 addresses at most
///                2. whoever in the neighbour table has its hardware address              4 at most
///                3. the router of a network in which it was not met, since a phone
///                   that shares its connection is the router; and in a network
///                   in which it may be searched, who is in the neighbour table          16 at most
///     sweep()    4. every address of one /24 around its last one                        254 at most
///
/// A sweep is for a private network of IPv4 on a real interface, in which the phone was met (or anywhere, if the person
/// has said so), and only while the system's neighbour table has plenty of room: an address that nobody has costs an
/// entry there.
class FinderPlan {
public:
    static constexpr std::size_t maxRemembered = AddressBook::maxCandidates;
    static constexpr std::size_t maxByMac = 4;
    static constexpr std::size_t maxOthers = 16;
    /// Entries of the neighbour table above which nothing is swept. The kernel has room for 1,024.
    static constexpr std::size_t crowdedTable = 512;

    struct Sweep {
        std::string interface;
        NetworkId claim; ///< for AddressMemory::claimSweep()
        /// The nearest to the last address first: a router gives out addresses one beside the other.
        std::vector<platform::Ipv4Address> addresses;
    };

    FinderPlan(FindSetting find, std::vector<OwnNetwork> networks, std::vector<platform::Neighbour> neighbours);

    /// Each target once, the best first.
    [[nodiscard]] std::vector<FinderTarget> nearby(const SoughtPhone& phone) const;
    /// Nothing if there is no network to sweep for this phone.
    [[nodiscard]] std::optional<Sweep> sweep(const SoughtPhone& phone) const;
    /// Whether there may be one as soon as a router has answered. This computer has just come into its network and
    /// does not know which it is; nearby() asks the router.
    [[nodiscard]] bool waitsForRouter() const;

private:
    [[nodiscard]] const OwnNetwork* networkToSweep(const SoughtPhone& phone) const;
    [[nodiscard]] bool maySearch(const OwnNetwork& network, const SoughtPhone& phone) const;
    [[nodiscard]] InterfaceKind kindOf(const std::string& interface) const;
    [[nodiscard]] bool isOwn(const platform::Ipv4Address& address) const;

    FindSetting find_;
    std::vector<OwnNetwork> networks_;
    std::vector<platform::Neighbour> neighbours_;
};

} // namespace orlinth::host
