#pragma once

#include "OrlinthCore/Pairing/PairingPayload.h"
#include "orlinth/Host.h"

#include <string>

/// From where `join` takes the computer's payload.
namespace orlinth::host {

/// From a JSON file, which holds the payload itself or the event that `pair --json` prints; "-" is standard input.
/// @throws HostError that names the file
[[nodiscard]] PairingPayload payloadFromFile(Host& host, const std::string& file);

/// From a picture (PNG) of the code. @throws HostError that names the file
[[nodiscard]] PairingPayload payloadFromPicture(Host& host, const std::string& file);

} // namespace orlinth::host
