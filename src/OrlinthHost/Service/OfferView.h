#pragma once

#include "base/StrongText.h"
#include "base/Time.h"

#include <cstdint>
#include <optional>
#include <string>

namespace orlinth::host {

/// Names the question whether to take a file. No two of a service have the same.
enum class OfferNumber : std::uint64_t {};

/// A file that a phone offers and that somebody has to accept, as faces show it.
struct OfferView {
    OfferNumber number{};
    PeerKey peerKey = {};
    std::string phone = {};                        ///< its name
    std::string name = {};                         ///< of the file, as the phone calls it and forDisplay() shows it
    std::int64_t size = 0;                         ///< bytes, as the phone says
    std::optional<EpochMilliseconds> expires = {}; ///< then it is declined; nothing: others come first

    friend bool operator==(const OfferView&, const OfferView&) = default;
};

} // namespace orlinth::host
