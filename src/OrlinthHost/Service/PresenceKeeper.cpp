#include "OrlinthHost/Service/PresenceKeeper.h"

#include "OrlinthCore/Sending/FcmWake.h"
#include "OrlinthHost/Phones/AddressMemory.h"
#include "OrlinthHost/Phones/Whereabouts.h"

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

void PresenceKeeper::left(const PeerKey& phone) {
    presence_.left(phone, now());
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
    presence_.networkChanged();
    tellChange();
}

void PresenceKeeper::learn(const PeerRecord& phone, OutboxSender::Contact contact) {
    using Contact = OutboxSender::Contact;
    if (contact == Contact::proved) {
        presence_.proved(phone.peer_pubkey, now());
    } else if (contact == Contact::refused && !isAnother(phone)) {
        presence_.refused(phone.peer_pubkey, home_.system.clock.now());
    } else {
        presence_.failed(phone.peer_pubkey);
    }
    tellChange();
}

void PresenceKeeper::tellChange() const {
    if (onChanged) {
        onChanged();
    }
}

/// Whether another device has the phone's address, as far as hardware addresses tell.
bool PresenceKeeper::isAnother(const PeerRecord& phone) const {
    const std::optional<HostAddress> host = HostAddress::parse(phone.peer_ip);
    if (!host) {
        return false;
    }
    const Meeting meeting = Whereabouts::look(home_.system).meetingAt(*host);
    if (!meeting.mac || !meeting.network) {
        return false;
    }
    bool isKnownHere = false;
    for (const KnownAddress& known : knownAddresses(home_).addressesOf(phone.peer_pubkey)) {
        if (known.mac == meeting.mac) {
            return false;
        }
        isKnownHere = isKnownHere || (known.mac && known.network == meeting.network);
    }
    return isKnownHere;
}

std::vector<PhonePresence> PresenceKeeper::all() const {
    std::vector<PeerRecord> records;
    try {
        records = home_.peers().loadBook().peers;
    } catch (const PeerStoreError&) {
        return {}; // whoever asks will have met the same
    }
    const std::map<PeerKey, EpochMilliseconds> meetings = knownAddresses(home_).lastMeetings();
    const bool hasPushKey = home_.system.files.exists(FcmWake::defaultServiceAccountURL(home_.system.directories));
    std::vector<PhonePresence> phones;
    for (const PeerRecord& record : records) {
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
