#pragma once

#include "OrlinthCore/Pairing/PairingPayload.h"
#include "orlinth/Program/Host.h"

#include <string>

/// From where `join` takes the computer's payload.
namespace orlinth::cli {

/// From a JSON file, which holds the payload itself or the event that `pair --json` prints; "-" is standard input.
/// @throws host::HostError that names the file
[[nodiscard]] PairingPayload payloadFromFile(Host& host, const std::string& file);

/// From a picture (PNG) of the code. @throws host::HostError that names the file
[[nodiscard]] PairingPayload payloadFromPicture(Host& host, const std::string& file);

} // namespace orlinth::cli
