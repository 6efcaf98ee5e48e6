#pragma once

#include "OrlinthHost/HostError.h"
#include "base/Time.h"

#include <cstdint>
#include <optional>
#include <string>

namespace orlinth::host {

/// A pairing that runs in the service, as faces show it. The secret is not part of it.
struct PairingView {
    enum class State {
        waiting,    ///< for a phone that has scanned the code
        confirming, ///< for somebody to compare the two screens
        done,       ///< the phone is recorded
        failed      ///< nobody is recorded
    };

    State state = State::waiting;
    std::string digits = {};                       ///< by which a phone finds it; "" unless it is announced
    std::string confirmationCode = {};             ///< once a phone has come
    std::string phone = {};                        ///< its name, likewise
    std::optional<EpochMilliseconds> expires = {}; ///< when it fails if nothing comes; nothing once it is over
    std::string problem = {};                      ///< why it failed; else ""
    std::string hint = {};                         ///< what to do about that

    [[nodiscard]] bool isOver() const noexcept { return state == State::done || state == State::failed; }
    friend bool operator==(const PairingView&, const PairingView&) = default;
};

/// What whoever begins a pairing can choose.
struct PairingOptions {
    std::string interface = {}; ///< whose address the code names; "": as PairingAttempt chooses
    Seconds timeout = 2min;     ///< for a phone to come
    bool isAnnounced = false;   ///< on the network, with the secret, so that a phone can find it by four digits
    bool isPublic = false;      ///< lets in connections from outside this computer's networks too

    /// The longest wait for a phone, and one second is the shortest.
    static constexpr std::chrono::seconds longestTimeout = 1h;
    /// Chooses how long to wait. @throws HostError beyond these
    void waitFor(std::int64_t seconds) {
        if (seconds < 1 || seconds > longestTimeout.count()) {
            throw HostError("a pairing waits 1 to " + std::to_string(longestTimeout.count()) +
                            " seconds for its phone");
        }
        timeout = std::chrono::seconds(seconds);
    }

    friend bool operator==(const PairingOptions&, const PairingOptions&) = default;
};

} // namespace orlinth::host
