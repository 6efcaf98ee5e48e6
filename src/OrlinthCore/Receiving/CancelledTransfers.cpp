#include "OrlinthCore/Receiving/CancelledTransfers.h"

#include <algorithm>
#include <utility>

namespace orlinth {

void CancelledTransfers::add(PeerKey peerKey, TransferId id, platform::Clock::Instant now) {
    remove(peerKey, id);
    const MutexLock guard(lock_);
    entries_.push_back({.peerKey = std::move(peerKey), .id = std::move(id), .at = now});
    if (entries_.size() > maxEntries) {
        entries_.pop_front();
    }
}

void CancelledTransfers::remove(const PeerKey& peerKey, const TransferId& id) {
    const MutexLock guard(lock_);
    std::erase_if(entries_, [&](const Entry& entry) { return entry.peerKey == peerKey && entry.id == id; });
}

bool CancelledTransfers::contains(const PeerKey& peerKey, const TransferId& id, platform::Clock::Instant now) const {
    const MutexLock guard(lock_);
    return std::ranges::any_of(entries_, [&](const Entry& entry) {
        return entry.peerKey == peerKey && entry.id == id && now - entry.at < lifetime;
    });
}

} // namespace orlinth
