#pragma once

#include "OrlinthCore/Peers/PeerRecord.h"
#include "OrlinthHost/Home.h"
#include "OrlinthHost/Phones/AddressMemory.h"

#include <functional>

namespace orlinth::host {

/// AddressMemory, as those use it who meet phones. Any thread; blocks on the disk.

/// Calls `learn` if the phone is paired. Nobody removes it meanwhile: its record stays locked, so that nothing is
/// remembered of a phone that is gone. Returns whether that was so; if the store cannot be read, nobody knows, and
/// nothing is learnt. `learn` does not use the store.
bool learnIfPaired(const Home& home, const PeerKey& phone, const std::function<void(AddressMemory&)>& learn);

/// Whether another device has the address of the phone's record now, as far as hardware addresses tell: the neighbour
/// table has one there with which the phone was never met, and in this very network it was met with another one. In
/// each network Android has a new one, so what it had elsewhere does not count against it. Asks this computer only.
[[nodiscard]] bool isAtAnothersAddress(const Home& home, const PeerRecord& phone);

} // namespace orlinth::host
