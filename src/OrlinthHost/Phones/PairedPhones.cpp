#include "OrlinthHost/Phones/PairedPhones.h"

#include "OrlinthCore/Peers/PeerNames.h"
#include "OrlinthHost/HostError.h"
#include "OrlinthHost/Phones/AddressMemory.h"
#include "OrlinthHost/Phones/RemovedPeers.h"
#include "OrlinthHost/Phones/SharedPeers.h"
#include "OrlinthHost/Phones/Whereabouts.h"
#include "base/Text.h"

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

std::optional<PeerRecord> PairedPhones::rename(const PeerKey& phone, const std::string& name) {
    const std::string wanted = trimmed(name);
    if (!isUtf8(wanted) || !isUsableName(wanted)) {
        throw HostError("'" + forDisplay(name) + "' cannot be the name of a phone",
                        "Use a name of 1 to " + std::to_string(maxPeerNameBytes) +
                            " bytes in UTF-8, without control characters.");
    }
    std::optional<PeerRecord> renamed;
    home_.peers().update([&](PeerBook& book) { // under the lock: somebody may take the name meanwhile
        const auto at = std::ranges::find(book.peers, phone, &PeerRecord::peer_pubkey);
        if (at == book.peers.end()) {
            return false;
        }
        if (isNameTaken(book, phone, wanted)) {
            throw HostError("another phone is called '" + forDisplay(wanted) + "'",
                            "`orlinth peers` lists the paired phones and their names.");
        }
        const bool isChanged = at->peer_hostname != wanted;
        at->peer_hostname = wanted;
        renamed = *at;
        return isChanged;
    });
    if (renamed) {
        updateSharedPeers(home_);
    }
    return renamed;
}

AddressMemory PairedPhones::memory() const {
    return {home_.system.files, home_.system.clock, home_.system.log, home_.dataDirectory()};
}

} // namespace orlinth::host
