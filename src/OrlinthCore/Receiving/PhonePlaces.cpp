#include "OrlinthCore/Receiving/PhonePlaces.h"

#include "OrlinthCore/Receiving/ReceiveError.h"

#include <algorithm>
#include <utility>

namespace orlinth {

/// Of a line that is not empty.
PhonePlaces::Line::iterator PhonePlaces::chooseWhoGoes(Line& line) {
    const auto idle = std::ranges::find_if(line, [](const Connection& one) { return !one.hasTransfer; });
    return idle != line.end() ? idle : std::ranges::min_element(line, {}, &Connection::heardOf);
}

PhonePlaces::Claim::Claim(PhonePlaces& places, platform::Clock& clock, PeerKey peerKey, std::function<void()> dismiss)
    : places_(places), clock_(clock), peerKey_(std::move(peerKey)) {
    std::function<void()> dismissOther;
    {
        const MutexLock guard(places_.lock_);
        Phone& known = places_.phones_[peerKey_];
        Line& line = known.line;
        if (line.size() + known.leaving >= limits::connectionsOfOnePhoneInAll) {
            throw ReceiveError::wire("too many connections of this phone are still closing");
        }
        if (line.size() >= limits::connectionsOfOnePhone) {
            const Line::iterator other = chooseWhoGoes(line);
            dismissOther = std::exchange(other->dismiss, nullptr);
            other->owner->gone_.splice(other->owner->gone_.end(), line, other);
            ++known.leaving;
        }
        place_ = line.insert(line.end(), {.owner = this, .dismiss = std::move(dismiss), .heardOf = clock_.now()});
    }
    if (dismissOther) {
        dismissOther();
    }
}

PhonePlaces::Claim::~Claim() {
    const MutexLock guard(places_.lock_);
    const auto phone = places_.phones_.find(peerKey_);
    if (gone_.empty()) {
        phone->second.line.erase(place_);
    } else {
        --phone->second.leaving;
    }
    if (phone->second.line.empty() && phone->second.leaving == 0) {
        places_.phones_.erase(phone);
    }
}

void PhonePlaces::Claim::heard() {
    const platform::Clock::Instant now = clock_.now();
    const MutexLock guard(places_.lock_);
    place_->heardOf = now;
}

void PhonePlaces::Claim::beginTransfer() {
    const MutexLock guard(places_.lock_);
    place_->hasTransfer = true;
}

std::size_t PhonePlaces::count(const PeerKey& peerKey) const {
    const MutexLock guard(lock_);
    const auto found = phones_.find(peerKey);
    return found == phones_.end() ? 0 : found->second.line.size();
}

} // namespace orlinth
