#pragma once

#include "orlinth/Host.h"

namespace orlinth::host {

/// Finds out before anything else whether there is a peer store to record somebody in: later, the other side would
/// have recorded us already. @throws PeerStoreError
void requirePeerStore(const Host& host);

/// To be called before a phone is recorded: the one that was removed here once, and is paired again, is not to be told
/// any more that it was removed. @throws HostError, and then nothing may be recorded: the service would turn it away
void forgetRemoval(Host& host, const PeerRecord& record);

/// Records a phone, or another computer, that was just paired, in place of earlier identities of it, which are named;
/// tells the event "paired". `record.paired_at_epoch_ms` is set here.
/// @throws PeerStoreError, HostError
void recordPaired(Host& host, PeerRecord record);

} // namespace orlinth::host
