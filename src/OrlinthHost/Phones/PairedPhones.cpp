#include "OrlinthHost/Phones/PairedPhones.h"

#include "OrlinthCore/Peers/PeerNames.h"
#include "OrlinthHost/Phones/AddressMemory.h"
#include "OrlinthHost/Phones/RemovedPeers.h"
#include "OrlinthHost/Phones/SharedPeers.h"
#include "OrlinthHost/Phones/Whereabouts.h"

#include <algorithm>
#include <vector>

namespace orlinth::host {

namespace {

/// Whether it was met where another phone is now, with the same hardware address. Phones have another one in each
/// network, so it tells nothing elsewhere.
bool wasMetAs(const std::vector<KnownAddress>& addresses, const std::optional<Meeting>& met) {
    return met && met->mac && met->network && std::ranges::any_of(addresses, [&met](const KnownAddress& known) {
               return known.mac == met->mac && known.network == met->network;
           });
}

} // namespace

std::optional<Meeting> PairedPhones::meet(const std::string& address) const {
    const std::optional<HostAddress> host = HostAddress::parse(address);
    if (!host) {
        return std::nullopt;
    }
    const Whereabouts here = Whereabouts::look(home_.system);
    Meeting meeting = here.meetingAt(*host);
    const OwnNetwork* const network = here.ownNetworkOf(*host);
    if (network != nullptr && meeting.mac == network->gatewayMac) {
        meeting.mac.reset();
    }
    return meeting;
}

PeerStore::Recorded PairedPhones::record(const PeerRecord& wanted, const std::optional<Meeting>& met) {
    if (const auto key = platform::PublicKey::fromBase64(wanted.peer_pubkey.text())) {
        RemovedPeers(home_.system.files, home_.dataDirectory()).forget(*key);
    }
    PeerStore peers = home_.peers();
    AddressMemory addresses = memory();
    std::vector<PeerKey> earlier;
    for (const PeerRecord& other : peers.loadBook().peers) {
        const bool isNamesake =
            other.peer_pubkey != wanted.peer_pubkey && isFormOfName(other.peer_hostname, wanted.peer_hostname);
        if (PeerStore::isEarlierIdentity(other, wanted) ||
            (isNamesake && wasMetAs(addresses.addressesOf(other.peer_pubkey), met))) {
            earlier.push_back(other.peer_pubkey);
        }
    }
    std::ranges::for_each(earlier, [&addresses](const PeerKey& phone) { addresses.forget(phone); });
    PeerStore::Recorded recorded = peers.upsertUnderFreeName(wanted, [&earlier](const PeerRecord& other) {
        return std::ranges::find(earlier, other.peer_pubkey) != earlier.end();
    });
    updateSharedPeers(home_);
    return recorded;
}

std::optional<PeerRecord> PairedPhones::remove(const PeerRecord& phone, const platform::PublicKey& ownKey) {
    const auto key = platform::PublicKey::fromBase64(phone.peer_pubkey.text());
    if (key && *key != ownKey) {
        RemovedPeers(home_.system.files, home_.dataDirectory()).add(*key);
    }
    memory().forget(phone.peer_pubkey);
    PeerStore peers = home_.peers();
    std::optional<PeerRecord> removed =
        peers.removeFirst([&phone](const PeerRecord& record) { return record.peer_pubkey == phone.peer_pubkey; });
    if (removed) {
        memory().forget(phone.peer_pubkey); // what another process has learnt in between
        updateSharedPeers(home_);
    }
    return removed;
}

AddressMemory PairedPhones::memory() const {
    return {home_.system.files, home_.system.clock, home_.system.log, home_.dataDirectory()};
}

} // namespace orlinth::host
