#pragma once

#include "OrlinthHost/Phones/NetworkIdentity.h"
#include "base/Bytes.h"
#include "base/Json.h"
#include "base/StrongText.h"
#include "base/Time.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace orlinth::host {

/// The address of one other host, and the interface by which it is reached, as far as that is known.
///
/// A plain value, in one spelling: an IPv4 address in the form of an IPv6 one (::ffff:a.b.c.d) is the IPv4 address.
class HostAddress {
public:
    /// `literal` is an address, an IPv6 one with or without a zone ("fe80::1%wlan0"); `interface` is for one without.
    /// Nothing for any other text, for what is no single other host's (loopback, multicast, broadcast, unspecified),
    /// for a link-local IPv6 address without an interface, and for what cannot name an interface.
    [[nodiscard]] static std::optional<HostAddress> parse(const std::string& literal,
                                                          const std::string& interface = {});

    /// Without a zone: "192.168.7.57", "fe80::1".
    [[nodiscard]] const std::string& text() const noexcept { return text_; }
    /// "wlan0"; "" if unknown. Never "" for a link-local IPv6 address. An interface that had the name then may be gone
    /// by now.
    [[nodiscard]] const std::string& interface() const noexcept { return interface_; }
    /// As a program connects to it: with the zone if it means nothing without, "fe80::1%wlan0".
    [[nodiscard]] std::string literal() const;
    [[nodiscard]] bool isIpv6() const noexcept { return text_.find(':') != std::string::npos; }
    /// Of IPv6, fe80::/10: one host has it on one interface, and perhaps another host on the next.
    [[nodiscard]] bool isLinkLocalIpv6() const noexcept { return isLinkLocalIpv6_; }
    /// Whether both are one address, also if the phone was met there by another interface.
    [[nodiscard]] bool isSameAs(const HostAddress& other) const noexcept;

    bool operator==(const HostAddress&) const = default;

private:
    HostAddress() = default;
    std::string text_;
    std::string interface_;
    bool isLinkLocalIpv6_ = false;
};

/// Where a phone has just proved its key.
struct Meeting {
    HostAddress host;
    std::optional<MacAddress> mac = {};    ///< what the neighbour table says of a host on the link
    std::optional<NetworkId> network = {}; ///< where this computer was; nothing if that cannot be told
};

/// Where a phone was met.
struct KnownAddress {
    HostAddress host;
    std::optional<MacAddress> mac;
    std::optional<NetworkId> network;
    /// It came in from there. Perhaps it cannot be reached there: that may be the address of a router or of a VPN.
    std::optional<EpochMilliseconds> came;
    std::optional<EpochMilliseconds> reached; ///< we have connected to it there, at the port at which it receives
    int failures = 0;                         ///< in that network, since it was reached; counted to maxFailures

    bool operator==(const KnownAddress&) const = default;
};

/// Where this computer is just now.
struct Surroundings {
    std::vector<NetworkId> networks;
    /// Whether the host can be reached without a router. Asked at most AddressBook::maxAddresses times; not of an
    /// interface that is gone: the answer for a host there is no.
    std::function<bool(const HostAddress&)> isOnLink;
};

/// What the phones know this computer by: what the code said that the last of them has read.
struct ToldAddress {
    HostAddress host;
    std::uint16_t port = 0;

    bool operator==(const ToldAddress&) const = default;
};

/// Where phones were met: the content of "addresses.json", and what is learnt from it. Bounded, whatever was read.
///
/// The worked example, which a test writes, of one phone that was reached twice and came in once:
///
///     {
///       "phones" : {
///         "hSDwCYkwp1R0i33ctD73Wg2/Og0mOBr066SpjqqbTmo=" : [
///           {
///             "address" : "192.168.7.57",
///             "came_epoch_ms" : 1731686460000,
///             "failures" : 0,
///             "mac" : "3e:5a:b4:01:02:03",
///             "network" : "9f86d081884c7d65",
///             "reached_epoch_ms" : 1731686400000,
///             "zone" : "wlan0"
///           },
///           {
///             "address" : "fe80::3c5a:b4ff:fe01:203",
///             "came_epoch_ms" : 0,
///             "failures" : 1,
///             "mac" : "",
///             "network" : "",
///             "reached_epoch_ms" : 1731686400000,
///             "zone" : "wlan0"
///           }
///         ]
///       },
///       "swept" : {
///         "9f86d081884c7d65" : 1731686400000
///       },
///       "told_ip" : "192.168.7.10",
///       "told_port" : 28471
///     }
///
/// Beside these, "moved" has by phone when the address in its record was replaced last, as "swept" has it by network;
/// it is left out while it is empty.
///
/// "" and 0 are what is not known, and moments that were never. What makes no sense is left out when it is read, entry
/// by entry. An address in two networks is two entries: 192.168.1.30 is one host here and another one at work.
///
/// A moment that lies ahead, because the clock was set back, never expires by that, and counts for less than any other.
///
/// A plain value, not thread-safe. Changes return whether there is anything to write.
class AddressBook {
public:
    /// Addresses of one phone, and how many of them may be of IPv6, which a phone changes daily.
    static constexpr std::size_t maxAddresses = 8;
    static constexpr std::size_t maxIpv6Addresses = 2;
    /// How long an address is kept since the phone was met there last.
    static constexpr std::chrono::days maxAge{90};
    static constexpr std::chrono::days maxIpv6Age{7};
    /// After so many failures an address comes after all others. Not counted any further.
    static constexpr int maxFailures = 3;
    /// How many addresses a phone is looked for at.
    static constexpr std::size_t maxCandidates = 4;
    /// Phones; the one that was met longest ago goes first.
    static constexpr std::size_t maxPhones = 20;
    /// Within this time a network is swept once, whoever asks.
    static constexpr std::chrono::minutes sweepInterval{10};
    /// Networks that can be swept in that time.
    static constexpr std::size_t maxSwept = 16;
    /// Within this time the address in a phone's record is replaced once, whoever has found it elsewhere.
    static constexpr std::chrono::minutes moveInterval{1};
    /// A phone that comes again within this time, from where it was, is nothing new.
    static constexpr std::chrono::minutes resolution{1};
    /// Largest file that is read.
    static constexpr std::size_t maxFileBytes = 64 << 10;

    /// @throws JsonError if the text is no JSON object, or larger than maxFileBytes
    [[nodiscard]] static AddressBook decode(ByteView text);
    /// At most maxFileBytes.
    [[nodiscard]] std::string encode() const;

    /// We have connected to the phone there, at its port, and it has proved its key.
    [[nodiscard]] bool reached(const PeerKey& phone, const Meeting& meeting, EpochMilliseconds now);
    /// It has connected to us from there, and proved its key.
    [[nodiscard]] bool came(const PeerKey& phone, const Meeting& meeting, EpochMilliseconds now);
    /// It did not prove its key there, with this computer in `network`. Nothing if it was never met there.
    [[nodiscard]] bool failed(const PeerKey& phone, const HostAddress& host, const std::optional<NetworkId>& network);
    [[nodiscard]] bool forget(const PeerKey& phone);
    /// Forgets every phone but these.
    [[nodiscard]] bool keepOnly(const std::vector<PeerKey>& phones);

    /// Whether anything is known of it, however old.
    [[nodiscard]] bool knows(const PeerKey& phone) const { return phones_.contains(phone) || moved_.contains(phone); }
    /// The phones by the hardware addresses with which they were met.
    [[nodiscard]] std::map<MacAddress, std::vector<PeerKey>> phonesByHardware(EpochMilliseconds now) const;
    /// When the phones were met last, whoever has connected to whom.
    [[nodiscard]] std::map<PeerKey, EpochMilliseconds> lastMeetings() const;
    /// Where it was met, the best first: those that do not fail, of these those at which it was reached, of these the
    /// newest. Without what is too old.
    [[nodiscard]] std::vector<KnownAddress> addressesOf(const PeerKey& phone, EpochMilliseconds now) const;
    /// Where to look for it from here, the best first, at most maxCandidates: of addressesOf() those on the link, and
    /// those at which it was reached from this very network.
    [[nodiscard]] std::vector<KnownAddress> candidates(const PeerKey& phone, const Surroundings& here,
                                                       EpochMilliseconds now) const;

    [[nodiscard]] bool tell(const ToldAddress& told);
    [[nodiscard]] const std::optional<ToldAddress>& told() const noexcept { return told_; }

    /// Whether this network may be swept now; then that counts as done.
    [[nodiscard]] bool claimSweep(const NetworkId& network, EpochMilliseconds now);
    /// Counts as done whether it may be or not, because somebody has it swept in person. False if nothing changes.
    [[nodiscard]] bool noteSweep(const NetworkId& network, EpochMilliseconds now);
    /// Whether the address in this phone's record may be replaced now: moveInterval after the last time.
    [[nodiscard]] bool mayMove(const PeerKey& phone, EpochMilliseconds now) const;
    /// It has been replaced.
    [[nodiscard]] bool moved(const PeerKey& phone, EpochMilliseconds now);

    bool operator==(const AddressBook&) const = default;

private:
    using Addresses = std::vector<KnownAddress>;
    using When = std::optional<EpochMilliseconds> KnownAddress::*;

    [[nodiscard]] bool learn(const PeerKey& phone, const Meeting& meeting, EpochMilliseconds now, When when);
    void makeRoomBeside(const PeerKey& phone, EpochMilliseconds now);
    void readPhones(const Json& phones);
    void readSwept(const Json& swept);
    void readMoved(const Json& moved);
    void readTold(const Json& file);

    std::map<PeerKey, Addresses> phones_; ///< none without an address
    std::map<NetworkId, EpochMilliseconds> swept_;
    std::map<PeerKey, EpochMilliseconds> moved_; ///< at most maxPhones
    std::optional<ToldAddress> told_;
};

} // namespace orlinth::host
