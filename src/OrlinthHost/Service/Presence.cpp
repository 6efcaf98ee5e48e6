#include "OrlinthHost/Service/Presence.h"

#include <algorithm>

namespace orlinth::host {

void Presence::arrived(const PeerKey& phone, Moment now) {
    proved(phone, now);
    ++phones_[phone].open;
}

void Presence::left(const PeerKey& phone, Moment heard) {
    Phone& known = phones_[phone];
    if (known.open > 0) {
        --known.open;
        proved(phone, heard);
    }
}

void Presence::proved(const PeerKey& phone, Moment heard) {
    Phone& known = phones_[phone];
    if (!known.seenAt || heard.instant >= *known.seenAt) { // by the clock that nobody sets
        known.seenAt = heard.instant;
        known.seen = heard.epoch;
    }
    if (heard.instant < changedAt_ || heard.instant < known.failedAt) {
        return;
    }
    known.provedAt = std::max(known.provedAt.value_or(heard.instant), heard.instant);
    known.hasRefused = false;
    known.isHeardOf = true;
}

void Presence::refused(const PeerKey& phone, Instant now) {
    Phone& known = phones_[phone];
    known.provedAt.reset();
    known.confirmedAt = now;
    known.hasRefused = true;
    known.isHeardOf = true;
    known.failedAt = now;
}

void Presence::failed(const PeerKey& phone, Instant now) {
    Phone& known = phones_[phone];
    known.provedAt.reset();
    known.confirmedAt.reset();
    known.hasRefused = false;
    known.isHeardOf = true;
    known.failedAt = now;
}

void Presence::confirmed(const PeerKey& phone, Instant now) {
    Phone& known = phones_[phone];
    known.confirmedAt = now;
    known.isHeardOf = true;
}

void Presence::disappeared(const PeerKey& phone) {
    const auto known = phones_.find(phone);
    if (known != phones_.end()) {
        known->second.confirmedAt.reset();
        known->second.hasRefused = false;
    }
}

void Presence::networkChanged(Instant now) {
    changedAt_ = now;
    for (auto& [key, phone] : phones_) {
        phone = {.open = phone.open,
                 .provedAt = {},
                 .confirmedAt = {},
                 .hasRefused = false,
                 .isHeardOf = false,
                 .failedAt = phone.failedAt,
                 .seen = phone.seen,
                 .seenAt = phone.seenAt};
    }
}

PhonePresence Presence::of(const PeerKey& phone, Instant now) const {
    const auto known = phones_.find(phone);
    if (known == phones_.end()) {
        return {.peerKey = phone};
    }
    return {.peerKey = phone, .state = stateOf(known->second, now), .seen = known->second.seen};
}

PresenceState Presence::stateOf(const Phone& phone, Instant now) {
    const auto isWithin = [now](const std::optional<Instant>& moment, Seconds time) {
        return moment && now - *moment <= time;
    };
    const bool isHere = phone.open > 0 || isWithin(phone.provedAt, hereAfterProof) ||
                        (isWithin(phone.confirmedAt, hereAfterConfirmation) && !phone.hasRefused);
    if (isHere) {
        return PresenceState::here;
    }
    if (phone.hasRefused || isWithin(phone.confirmedAt, asleepAfterConfirmation)) {
        return PresenceState::asleep;
    }
    return phone.isHeardOf ? PresenceState::away : PresenceState::unknown;
}

} // namespace orlinth::host
