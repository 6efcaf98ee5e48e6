#include "OrlinthHost/Service/PresenceKeeper.h"

#include "OrlinthCore/Sending/FcmWake.h"
#include "OrlinthHost/Phones/AddressMemory.h"
#include "OrlinthHost/Phones/MetPhones.h"

#include <algorithm>
#include <map>
#include <optional>

namespace orlinth::host {

namespace {

AddressMemory knownAddresses(const Home& home) {
    return {home.system.files, home.system.clock, home.system.log, home.dataDirectory()};
}

} // namespace

void PresenceKeeper::arrived(const PeerKey& phone) {
    presence_.arrived(phone, now());
    tellChange();
}

void PresenceKeeper::left(const PeerKey& phone, platform::Clock::Instant heardAt) {
    presence_.left(phone, momentOf(heardAt));
    tellChange();
}

void PresenceKeeper::confirmed(const PeerKey& phone) {
    presence_.confirmed(phone, home_.system.clock.now());
    tellChange();
}

void PresenceKeeper::disappeared(const PeerKey& phone) {
    presence_.disappeared(phone);
    tellChange();
}

void PresenceKeeper::networkChanged() {
    presence_.networkChanged(home_.system.clock.now());
    tellChange();
}

void PresenceKeeper::learn(const PeerRecord& phone, OutboxSender::Contact contact, platform::Clock::Instant at) {
    using Contact = OutboxSender::Contact;
    if (contact == Contact::proved) {
        presence_.proved(phone.peer_pubkey, momentOf(at));
    } else if (contact == Contact::refused && !isAtAnothersAddress(home_, phone)) {
        presence_.refused(phone.peer_pubkey, at);
    } else {
        presence_.failed(phone.peer_pubkey, at);
    }
    tellChange();
}

void PresenceKeeper::tellChange() const {
    if (onChanged) {
        onChanged();
    }
}

Presence::Moment PresenceKeeper::momentOf(platform::Clock::Instant instant) const {
    const Seconds since = home_.system.clock.now() - instant;
    return {.instant = instant,
            .epoch = home_.system.clock.epochMilliseconds() - std::chrono::round<std::chrono::milliseconds>(since)};
}

std::vector<PhonePresence> PresenceKeeper::all(const PeerBook& book) const {
    const std::map<PeerKey, EpochMilliseconds> meetings = knownAddresses(home_).lastMeetings();
    const bool hasPushKey = home_.system.files.exists(FcmWake::defaultServiceAccountURL(home_.system.directories));
    std::vector<PhonePresence> phones;
    for (const PeerRecord& record : book.peers) {
        PhonePresence phone = presence_.of(record.peer_pubkey, home_.system.clock.now());
        if (const auto met = meetings.find(record.peer_pubkey); met != meetings.end()) {
            phone.seen = std::max(phone.seen.value_or(met->second), met->second);
        }
        phone.canWake = hasPushKey && !record.peer_fcm_token.empty();
        phones.push_back(phone);
    }
    return phones;
}

} // namespace orlinth::host
