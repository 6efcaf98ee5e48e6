#include "OrlinthHost/Phones/KnownKeys.h"

#include "OrlinthHost/Phones/RemovedPeers.h"

#include <asio/post.hpp>

#include <utility>
#include <vector>

namespace orlinth::host {

KnownKeys::KnownKeys(Home& home, Receiver& receiver, platform::PublicKey ownKey, OnTrouble onTrouble)
    : home_(home),
      receiver_(receiver),
      ownKey_(std::move(ownKey)),
      onTrouble_(std::move(onTrouble)),
      peers_{.file = home.peers().fileURL(), .check = {}, .trouble = {}},
      removed_{.file = home.dataDirectory() / RemovedPeers::fileName, .check = {}, .trouble = {}} {}

void KnownKeys::refresh() noexcept {
    const MutexLock guard(lock_);
    // in this order: whoever removes a phone remembers that first, so it is never unknown in between
    refresh(peers_, [this] {
        lock_.assertHeld();
        readPeers();
    });
    refresh(removed_, [this] { readRemoved(); });
}

void KnownKeys::refresh(Source& source, const std::function<void()>& read) {
    std::string trouble;
    std::exception_ptr reason;
    try {
        using Answer = platform::FileChangeCheck::Answer;
        const Answer answer = source.check.look(home_.system.files, home_.system.clock, source.file);
        if (answer == Answer::same) {
            return;
        }
        if (answer == Answer::different) {
            source.trouble.clear();
        }
        read();
    } catch (const std::exception& error) {
        trouble = describe(error);
        reason = std::current_exception();
    }
    if (reason) {
        source.check.doubt(); // it may pass without a change of the file
    }
    if (reason && trouble != source.trouble) {
        report(reason);
    }
    source.trouble = std::move(trouble);
}

void KnownKeys::readPeers() {
    std::vector<platform::PublicKey> keys;
    for (const PeerRecord& record : home_.peers().loadBook().peers) {
        auto key = platform::PublicKey::fromBase64(record.peer_pubkey.text());
        if (key && *key != ownKey_) {
            keys.push_back(std::move(*key));
        }
    }
    pairedCount_ = keys.size();
    receiver_.setExpectedPeerPubkeys(std::move(keys));
}

void KnownKeys::readRemoved() {
    receiver_.setRemovedPeerPubkeys(RemovedPeers(home_.system.files, home_.dataDirectory()).load());
}

std::size_t KnownKeys::pairedCount() const {
    const MutexLock guard(lock_);
    return pairedCount_;
}

void KnownKeys::report(const std::exception_ptr& error) const {
    asio::post(home_.executor, [onTrouble = onTrouble_, error] { onTrouble(error); });
}

} // namespace orlinth::host
