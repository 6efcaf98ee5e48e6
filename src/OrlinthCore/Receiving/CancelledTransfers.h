#pragma once

#include "base/Mutex.h"
#include "base/StrongText.h"
#include "platform/Clock.h"

#include <cstddef>
#include <deque>

namespace orlinth {

/// The transfers that were cancelled here: what a phone offers of them again is declined, for a day. Nothing on the
/// wire says that a file is not wanted any more, so that a phone whose connection was cut comes back for it.
///
/// In memory: a service that was started anew takes what is offered. Any thread.
class CancelledTransfers {
public:
    /// A phone that was away in between comes back for its file within this time, or has forgotten it.
    static constexpr Seconds lifetime = 24h;
    /// Of more the oldest is forgotten: people cancel by hand.
    static constexpr std::size_t maxEntries = 1024;

    CancelledTransfers() = default;
    CancelledTransfers(const CancelledTransfers&) = delete;
    CancelledTransfers& operator=(const CancelledTransfers&) = delete;

    void add(PeerKey peerKey, TransferId id, platform::Clock::Instant now);
    /// The file was delivered after all.
    void remove(const PeerKey& peerKey, const TransferId& id);
    [[nodiscard]] bool contains(const PeerKey& peerKey, const TransferId& id, platform::Clock::Instant now) const;

private:
    struct Entry {
        PeerKey peerKey;
        TransferId id;
        platform::Clock::Instant at{};
    };

    mutable Mutex lock_;
    std::deque<Entry> entries_ ORLINTH_GUARDED_BY(lock_); ///< the oldest first
};

} // namespace orlinth
