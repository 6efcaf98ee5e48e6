#include "OrlinthHost/Service/Presence.h"

namespace orlinth::host {

void Presence::arrived(const PeerKey& phone, Moment now) {
    proved(phone, now);
    ++phones_[phone].open;
}

void Presence::left(const PeerKey& phone, Moment now) {
    Phone& known = phones_[phone];
    if (known.open > 0) {
        --known.open;
        if (known.isHeardOf) { // else this computer has changed networks meanwhile, and it is the end of a dead
                               // connection
            known.provedAt = now.instant;
            known.seen = now.epoch;
        }
    }
}

void Presence::proved(const PeerKey& phone, Moment now) {
    Phone& known = phones_[phone];
    known.provedAt = now.instant;
    known.seen = now.epoch;
    known.hasRefused = false;
    known.isHeardOf = true;
}

void Presence::refused(const PeerKey& phone, Instant now) {
    Phone& known = phones_[phone];
    known.provedAt.reset();
    known.confirmedAt = now;
    known.hasRefused = true;
    known.isHeardOf = true;
}

void Presence::failed(const PeerKey& phone) {
    Phone& known = phones_[phone];
    known.provedAt.reset();
    known.confirmedAt.reset();
    known.hasRefused = false;
    known.isHeardOf = true;
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

void Presence::networkChanged() {
    for (auto& [key, phone] : phones_) {
        phone = {.open = phone.open,
                 .provedAt = {},
                 .confirmedAt = {},
                 .hasRefused = false,
                 .isHeardOf = false,
                 .seen = phone.seen};
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
