#pragma once

#include "OrlinthCore/Peers/PeerRecord.h"

#include <cstddef>
#include <string>

namespace orlinth {

/// Names by which a person tells phones apart. Two are the same if they look alike (lookOf()).

/// A name may have this many bytes.
inline constexpr std::size_t maxPeerNameBytes = 255;

/// Whether anybody could be called so: not too long, neither empty nor white space alone, no control characters.
[[nodiscard]] bool isUsableName(const std::string& name);

/// Whether a phone other than `peerKey`'s is recorded under a name that looks like this one.
[[nodiscard]] bool isNameTaken(const PeerBook& book, const PeerKey& peerKey, const std::string& name);

/// The name to record the phone `peerKey` under that calls itself `name`: that, or, if it is taken, with the first free
/// number behind it: "Pixel 8 (2)". The same for the same book, so that a phone keeps its number. A name with a number
/// has at most 255 bytes.
[[nodiscard]] std::string freeName(const PeerBook& book, const PeerKey& peerKey, const std::string& name);

/// Whether `recorded` is what freeName() makes of `name`: the name itself, or with a number.
[[nodiscard]] bool isFormOfName(const std::string& recorded, const std::string& name);

} // namespace orlinth
