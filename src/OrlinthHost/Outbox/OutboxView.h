#pragma once

#include "base/StrongText.h"
#include "base/Time.h"

#include <cstddef>
#include <optional>
#include <string>

namespace orlinth::host {

/// A batch of the outbox on its way to one phone, as faces show it.
struct OutboxView {
    enum class State {
        waiting, ///< for its turn, or for the phone
        sending,
        paused, ///< the last attempt has failed; the next is made at `nextAttempt`
        failed  ///< what is not sent is not tried again
    };

    BatchId batch = {};
    PeerKey peerKey = {};
    std::string phone = {}; ///< its name
    EpochMilliseconds createdAt{};
    std::size_t files = 0;
    std::size_t filesDone = 0;
    State state = State::waiting;
    std::optional<EpochMilliseconds> nextAttempt = {};
    std::string problem = {}; ///< why the last attempt has failed; "" if none has since a success

    friend bool operator==(const OutboxView&, const OutboxView&) = default;
};

} // namespace orlinth::host
