#pragma once

#include "OrlinthHost/Home.h"
#include "OrlinthHost/Phones/AddressBook.h"

#include <optional>
#include <string>

namespace orlinth::host {

class AddressMemory;

/// Records and removes phones: the one place that knows in which order the files about them are written.
///
///     record:  removed.json (no longer removed) ── addresses.json (earlier identities are forgotten) ── peer.json
///              ── the share sheet's list
///     remove:  removed.json (to be notified)    ── addresses.json (forgotten) ── peer.json ── the share sheet's list
///
/// In both, a kill in between leaves a phone that the service still knows, as a paired or as a removed one, and never
/// one that it turns away as a stranger. No kill leaves the addresses of a phone that is not paired any more.
///
/// Threading: none of its own; blocks on the disk.
class PairedPhones {
public:
    /// `home` outlives this.
    explicit PairedPhones(Home& home) : home_(home) {}

    /// Where a phone is that is being paired: it has just spoken from this address. Nothing if the address is no other
    /// device's. The hardware address is absent if it is the router's, which may stand in for many.
    [[nodiscard]] std::optional<Meeting> meet(const std::string& address) const;
    /// Records a phone in place of earlier identities of it; one whose name another phone has gets a number behind it.
    /// An earlier identity is what PeerStore::isEarlierIdentity() says. So is a record of the same name that was met
    /// with the same hardware address in the same network as this phone was when it was paired: `met`, of meet().
    /// @throws PeerStoreError, HostError
    [[nodiscard]] PeerStore::Recorded record(const PeerRecord& wanted, const std::optional<Meeting>& met = {});
    /// Forgets the phone of this record, and where it was met; it is notified when it connects. Nothing if it was not
    /// there any more.
    /// `ownKey` is no phone's, whatever a record says. @throws PeerStoreError, HostError
    [[nodiscard]] std::optional<PeerRecord> remove(const PeerRecord& phone, const platform::PublicKey& ownKey);

    /// Calls a phone so here, until it says another name of its own: such a name always counts. Nothing if it is not
    /// there any more; else the record as it is now. The name is taken without white space at its ends.
    /// @throws HostError if nobody can be called so, or another phone's name looks like it; PeerStoreError
    [[nodiscard]] std::optional<PeerRecord> rename(const PeerKey& phone, const std::string& name);

private:
    [[nodiscard]] AddressMemory memory() const;

    Home& home_;
};

} // namespace orlinth::host
