#pragma once

#include "OrlinthHost/Phones/AddressBook.h"
#include "orlinth/Program/Host.h"

#include <optional>

namespace orlinth::cli {

/// Finds out before anything else whether there is a peer store to record somebody in: later, the other side would
/// have recorded us already. @throws PeerStoreError
void requirePeerStore(const Host& host);

/// Records a phone, or another computer, that was just paired, in place of earlier identities of it, which are named;
/// tells the event "paired". A phone of a name that another one has gets a number behind it, and that is told.
/// A record of the same name that may be of the same phone stays, and the person is told how to remove it. `met` is
/// what PairedPhones::meet() said. `paired_at_epoch_ms` is set here. @throws PeerStoreError, host::HostError
void recordPaired(Host& host, PeerRecord phone, const std::optional<host::Meeting>& met);

/// The same for a phone that somebody records by hand; the event is "added".
void recordByHand(Host& host, const PeerRecord& phone);

} // namespace orlinth::cli
