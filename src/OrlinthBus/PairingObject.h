#pragma once

#include "OrlinthBus/BusCall.h"
#include "OrlinthBus/BusObject.h"
#include "OrlinthHost/Service/PairingView.h"

#include <optional>

/// The pairing that runs in the service, on the bus.
namespace orlinth::bus {

inline constexpr const char* pairingPath = "/com/tarvinex/orlinth1/pairing";

[[nodiscard]] BusInterface pairingInterface();

/// Adds its object, if there is a pairing.
void addPairing(BusObjects& objects, const std::optional<host::PairingView>& pairing);

/// What whoever called Pair has chosen: "interface" (s), "timeout" (a number of seconds), "announce" (b) and
/// "listen-public" (b). Others are ignored. @throws host::HostError for one of those that makes no sense
[[nodiscard]] host::PairingOptions pairingOptionsIn(const BusOptions& options);

} // namespace orlinth::bus
