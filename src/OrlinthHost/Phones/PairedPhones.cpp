#include "OrlinthHost/Phones/PairedPhones.h"

#include "OrlinthHost/Phones/AddressMemory.h"
#include "OrlinthHost/Phones/RemovedPeers.h"
#include "OrlinthHost/Phones/SharedPeers.h"

namespace orlinth::host {

PeerStore::Recorded PairedPhones::record(const PeerRecord& wanted) {
    if (const auto key = platform::PublicKey::fromBase64(wanted.peer_pubkey.text())) {
        RemovedPeers(home_.system.files, home_.dataDirectory()).forget(*key);
    }
    PeerStore::Recorded recorded = home_.peers().upsertUnderFreeName(wanted);
    updateSharedPeers(home_);
    return recorded;
}

std::optional<PeerRecord> PairedPhones::remove(const PeerRecord& phone, const platform::PublicKey& ownKey) {
    const auto key = platform::PublicKey::fromBase64(phone.peer_pubkey.text());
    if (key && *key != ownKey) {
        RemovedPeers(home_.system.files, home_.dataDirectory()).add(*key);
    }
    AddressMemory addresses(home_.system.files, home_.system.clock, home_.system.log, home_.dataDirectory());
    addresses.forget(phone.peer_pubkey);
    PeerStore peers = home_.peers();
    std::optional<PeerRecord> removed =
        peers.removeFirst([&phone](const PeerRecord& record) { return record.peer_pubkey == phone.peer_pubkey; });
    if (removed) {
        addresses.forget(phone.peer_pubkey); // what another process has learnt in between
        updateSharedPeers(home_);
    }
    return removed;
}

} // namespace orlinth::host
