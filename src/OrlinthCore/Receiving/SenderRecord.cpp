#include "OrlinthCore/Receiving/SenderRecord.h"

#include "OrlinthCore/Receiving/Receiver.h"
#include "base/Text.h"

#include <algorithm>

namespace orlinth {

void RecordChange::add(RecordChange later) {
    const auto take = [](std::optional<std::string>& value, std::optional<std::string>& newer) {
        if (newer) {
            value = std::move(newer);
        }
    };
    take(token, later.token);
    take(name, later.name);
}

SenderRecord::SenderRecord(PeerStore store, const platform::PublicKey& key)
    : store_(std::move(store)), peerKey_(key.peerKey()) {}

std::optional<PeerRecord> SenderRecord::find() const {
    const PeerBook book = store_.loadBook();
    const PeerRecord* const record = book.find(peerKey_);
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

bool SenderRecord::isUsableName(const std::string& name) {
    return orlinth::isUsableName(name);
}

std::optional<std::string> SenderRecord::nameHere(const std::string& name) const {
    if (!isUsableName(name)) {
        return std::nullopt;
    }
    const PeerBook book = store_.loadBook();
    return book.find(peerKey_) == nullptr ? name : freeName(book, peerKey_, name);
}

bool SenderRecord::apply(const RecordChange& change) {
    PeerBook seen = store_.loadBook();
    if (!applyTo(seen, change)) {
        return false;
    }
    bool isChanged = false;
    store_.update([&](PeerBook& book) { // the record that is there under the lock
        isChanged = applyTo(book, change);
        return isChanged;
    });
    return isChanged;
}

/// Returns whether the book has changed.
bool SenderRecord::applyTo(PeerBook& book, const RecordChange& change) const {
    const auto at = std::ranges::find(book.peers, peerKey_, &PeerRecord::peer_pubkey);
    if (at == book.peers.end()) {
        return false;
    }
    const PeerRecord before = *at;
    if (change.name && isUsableName(*change.name)) {
        at->peer_hostname = freeName(book, peerKey_, *change.name);
    }
    bool isMoved = false;
    if (change.token && change.token->size() <= maxTokenBytes) {
        at->peer_fcm_token = *change.token;
        isMoved = std::next(at) != book.peers.end();
    }
    const bool isChanged = isMoved || *at != before;
    if (isMoved) {
        std::rotate(at, std::next(at), book.peers.end());
    }
    return isChanged;
}

void SenderRecord::remove() {
    static_cast<void>(store_.removeFirst([this](const PeerRecord& record) { return record.peer_pubkey == peerKey_; }));
}

} // namespace orlinth
