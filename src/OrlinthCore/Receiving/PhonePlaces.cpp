#include "OrlinthCore/Receiving/PhonePlaces.h"

#include <algorithm>
#include <utility>

namespace orlinth {

/// Of a line that is not empty.
PhonePlaces::Line::iterator PhonePlaces::chooseWhoGoes(Line& line) {
    const auto idle = std::ranges::find_if(line, [](const Connection& one) { return !one.hasTransfer; });
    return idle != line.end() ? idle : std::ranges::min_element(line, {}, &Connection::heardOf);
}

PhonePlaces::Claim::Claim(PhonePlaces& places, platform::Clock& clock, std::string phone, std::function<void()> dismiss)
    : places_(places), clock_(clock), phone_(std::move(phone)) {
    std::function<void()> dismissOther;
    {
        const std::lock_guard guard(places_.lock_);
        Line& line = places_.lines_[phone_];
        if (line.size() >= limits::connectionsOfOnePhone) {
            const Line::iterator other = chooseWhoGoes(line);
            dismissOther = std::exchange(other->dismiss, nullptr);
            other->owner->gone_.splice(other->owner->gone_.end(), line, other);
        }
        place_ = line.insert(line.end(), {.owner = this, .dismiss = std::move(dismiss), .heardOf = clock_.now()});
    }
    if (dismissOther) {
        dismissOther();
    }
}

PhonePlaces::Claim::~Claim() {
    const std::lock_guard guard(places_.lock_);
    if (!gone_.empty()) {
        return;
    }
    const auto line = places_.lines_.find(phone_);
    line->second.erase(place_);
    if (line->second.empty()) {
        places_.lines_.erase(line);
    }
}

void PhonePlaces::Claim::heard() {
    const platform::Clock::Instant now = clock_.now();
    const std::lock_guard guard(places_.lock_);
    place_->heardOf = now;
}

void PhonePlaces::Claim::beginTransfer() {
    const std::lock_guard guard(places_.lock_);
    place_->hasTransfer = true;
}

std::size_t PhonePlaces::count(const std::string& phone) const {
    const std::lock_guard guard(lock_);
    const auto line = lines_.find(phone);
    return line == lines_.end() ? 0 : line->second.size();
}

} // namespace orlinth
