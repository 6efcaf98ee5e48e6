#include "OrlinthCore/Receiving/SenderRecord.h"

#include "OrlinthCore/Peers/PeerNames.h"
#include "OrlinthCore/Receiving/Receiver.h"
#include "base/Text.h"
#include "platform/IpAddress.h"

#include <algorithm>

namespace orlinth {
namespace {

bool isUsableName(const std::string& name) {
    return name.size() <= SenderRecord::maxNameBytes && !trimmed(name).empty() && !hasControlCharacter(name);
}

bool isLoopback(const std::string& address) {
    return address == "::1" || address.starts_with("127.");
}

bool mayReplace(const std::string& recorded, const std::string& seen) {
    const bool isHostName = !recorded.empty() && !platform::parseIpAddress(recorded);
    const bool isTunnel = isLoopback(seen) && !isLoopback(recorded);
    return platform::parseIpAddress(seen) && !isHostName && !isTunnel;
}

} // namespace

SenderRecord::SenderRecord(platform::System& system, const platform::PublicKey& key)
    : system_(system), pubkey_(key.base64()) {}

std::optional<PeerRecord> SenderRecord::find() const {
    const PeerBook book = PeerStore(system_.files, system_.directories).loadBook();
    const PeerRecord* const record = book.find(pubkey_);
    return record == nullptr ? std::nullopt : std::optional(*record);
}

std::string SenderRecord::displayName() const noexcept {
    try {
        const std::optional<PeerRecord> record = find();
        return record ? record->peer_hostname : Receiver::unknownPeer;
    } catch (const std::exception&) {
        return Receiver::unknownPeer; // it is for show; who needs the record hears of the failure
    }
}

void SenderRecord::change(const std::function<bool(const PeerBook&, PeerRecord&)>& change) {
    PeerStore store(system_.files, system_.directories);
    const PeerBook seen = store.loadBook();
    const PeerRecord* const present = seen.find(pubkey_);
    if (present == nullptr) {
        return;
    }
    if (PeerRecord copy = *present; !change(seen, copy)) {
        return;
    }
    store.update([this, &change](PeerBook& book) {
        const auto at = std::find_if(book.peers.begin(), book.peers.end(),
                                     [this](const PeerRecord& record) { return record.peer_pubkey == pubkey_; });
        if (at == book.peers.end()) {
            return false;
        }
        PeerRecord changed = *at;
        if (!change(book, changed)) {
            return false;
        }
        *at = std::move(changed);
        return true;
    });
}

void SenderRecord::setFcmToken(const std::string& token) {
    if (token.size() > maxTokenBytes) {
        return;
    }
    const auto hasItLast = [&](const PeerBook& book) {
        return book.peers.back().peer_pubkey == pubkey_ && book.peers.back().peer_fcm_token == token;
    };
    PeerStore store(system_.files, system_.directories);
    const PeerBook seen = store.loadBook();
    if (seen.find(pubkey_) == nullptr || hasItLast(seen)) {
        return;
    }
    store.update([&](PeerBook& book) { // as upsert() does, of the record that is there under the lock
        const PeerRecord* const present = book.find(pubkey_);
        if (present == nullptr || hasItLast(book)) {
            return false;
        }
        PeerRecord updated = present->withFcmToken(token);
        std::erase_if(book.peers, [this](const PeerRecord& peer) { return peer.peer_pubkey == pubkey_; });
        book.peers.push_back(std::move(updated));
        return true;
    });
}

std::optional<std::string> SenderRecord::setHostname(const std::string& name) {
    if (!isUsableName(name)) {
        return std::nullopt;
    }
    std::string given = name;
    change([this, &name, &given](const PeerBook& book, PeerRecord& record) {
        given = freeName(book, pubkey_, name);
        const bool differs = record.peer_hostname != given;
        record.peer_hostname = given;
        return differs;
    });
    return given;
}

bool SenderRecord::isAddressNew(const PeerRecord& record, const std::string& address) {
    return record.peer_ip != address && mayReplace(record.peer_ip, address);
}

void SenderRecord::setAddress(const std::string& address) {
    change([&address](const PeerBook&, PeerRecord& record) {
        if (!isAddressNew(record, address)) {
            return false;
        }
        record.peer_ip = address;
        return true;
    });
}

void SenderRecord::remove() {
    static_cast<void>(PeerStore(system_.files, system_.directories).removeFirst([this](const PeerRecord& record) {
        return record.peer_pubkey == pubkey_;
    }));
}

} // namespace orlinth
