#pragma once

#include "base/StrongText.h"
#include "base/Time.h"

#include <optional>

namespace orlinth::host {

/// Whether a phone is there, as far as that is known without asking it.
enum class PresenceState {
    here,   ///< it takes files now
    asleep, ///< it is in this network, and has to be woken
    away,   ///< it was not heard of for a while
    unknown ///< nobody can say: this computer has just come into the network, or no service runs
};

/// What is known of one phone. Never a reason not to send to it.
struct PhonePresence {
    PeerKey peerKey;
    PresenceState state = PresenceState::unknown;
    std::optional<EpochMilliseconds> seen = {}; ///< when something last came from it; nothing if never
    bool canWake = false;                       ///< there are a push token and a key for the push service

    friend bool operator==(const PhonePresence&, const PhonePresence&) = default;
};

} // namespace orlinth::host
