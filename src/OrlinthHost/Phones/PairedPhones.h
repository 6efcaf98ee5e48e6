#pragma once

#include "OrlinthHost/Home.h"

#include <functional>
#include <optional>

namespace orlinth::host {

/// Records and removes phones: the one place that knows in which order the files about them are written.
///
///     record:  removed.json (no longer removed) ── peer.json ── the share sheet's list
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

    /// Records a phone in place of earlier identities of it; one whose name another phone has gets a number behind it.
    /// @throws PeerStoreError, HostError
    [[nodiscard]] PeerStore::Recorded record(const PeerRecord& wanted);
    /// Forgets the phone of this record, and where it was met; it is notified when it connects. Nothing if it was not
    /// there any more.
    /// `ownKey` is no phone's, whatever a record says. @throws PeerStoreError, HostError
    [[nodiscard]] std::optional<PeerRecord> remove(const PeerRecord& phone, const platform::PublicKey& ownKey);

private:
    Home& home_;
};

} // namespace orlinth::host
