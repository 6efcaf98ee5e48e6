#pragma once

#include "orlinth/Host.h"

namespace orlinth::host {

/// Asks on standard error and reads one line of the answer, from standard input, or from the terminal itself where
/// standard input was used up otherwise. Only a yes is one; an end of input is a no. Blocks; a signal ends the program.
/// @throws HostError if there is nobody to ask
[[nodiscard]] bool asksForYes(const std::string& question, bool standardInputIsUsedUp);

/// To be called before a phone is recorded: the one that was removed here once, and is paired again, is not to be told
/// any more that it was removed. @throws HostError, and then nothing may be recorded: the service would turn it away
void forgetRemoval(Host& host, const PeerRecord& record);

/// Records a phone, or another computer, that was just paired, in place of earlier identities of it, which are named;
/// tells the event "paired". `record.paired_at_epoch_ms` is set here.
/// @throws PeerStoreError, HostError
void recordPaired(Host& host, PeerRecord record);

} // namespace orlinth::host
