#pragma once

#include "OrlinthBus/BusObject.h"
#include "OrlinthHost/Service/PairingView.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>

/// The pairing that runs in the service, on the bus.
namespace orlinth::bus {

inline constexpr const char* pairingPath = "/com/tarvinex/orlinth1/pairing";

[[nodiscard]] BusInterface pairingInterface();

/// Adds its object, if there is a pairing.
void addPairing(BusObjects& objects, const std::optional<host::PairingView>& pairing);

/// Options of a call, by their names; those of other types are not among them.
using BusOption = std::variant<bool, std::int64_t, std::string>;
using BusOptions = std::map<std::string, BusOption>;

/// What whoever called Pair has chosen: "interface" (s), "timeout" (a number of seconds), "announce" (b) and
/// "listen-public" (b). Others are ignored. @throws host::HostError for one of those that makes no sense
[[nodiscard]] host::PairingOptions pairingOptionsIn(const BusOptions& options);

} // namespace orlinth::bus
