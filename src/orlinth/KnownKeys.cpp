#include "orlinth/KnownKeys.h"

#include "orlinth/Hints.h"
#include "orlinth/RemovedPeers.h"

#include <asio/post.hpp>

#include <utility>
#include <vector>

namespace orlinth::host {

KnownKeys::KnownKeys(Host& host, Receiver& receiver, platform::PublicKey ownKey)
    : host_(host),
      receiver_(receiver),
      ownKey_(std::move(ownKey)),
      peers_{.file = host.peers().fileURL(), .check = {}, .trouble = {}},
      removed_{.file = host.dataDirectory() / RemovedPeers::fileName, .check = {}, .trouble = {}} {}

void KnownKeys::refresh() noexcept {
    const std::lock_guard guard(lock_);
    // in this order: whoever removes a phone remembers that first, so it is never unknown in between
    refresh(peers_, [this] { readPeers(); });
    refresh(removed_, [this] { readRemoved(); });
}

void KnownKeys::refresh(Source& source, const std::function<void()>& read) {
    std::string trouble;
    std::string hint = "The phones that were known before are still served.";
    try {
        using Answer = FileChangeCheck::Answer;
        const Answer answer = source.check.look(host_.system.files, host_.system.clock, source.file);
        if (answer == Answer::same) {
            return;
        }
        if (answer == Answer::different) {
            source.trouble.clear();
        }
        read();
    } catch (const HostError& error) {
        trouble = error.description();
        hint += " " + error.hint();
    } catch (const std::exception& error) {
        trouble = describe(error);
        if (const std::string way = hintForOwnFiles(host_, error); !way.empty()) {
            hint += " " + way;
        }
    }
    if (!trouble.empty()) {
        source.check.doubt(); // it may pass without a change of the file
    }
    if (!trouble.empty() && trouble != source.trouble) {
        tell(trouble, hint);
    }
    source.trouble = std::move(trouble);
}

void KnownKeys::readPeers() {
    std::vector<platform::PublicKey> keys;
    for (const PeerRecord& record : host_.peers().loadBook().peers) {
        auto key = platform::PublicKey::fromBase64(record.peer_pubkey);
        if (key && *key != ownKey_) {
            keys.push_back(std::move(*key));
        }
    }
    pairedCount_ = keys.size();
    receiver_.setExpectedPeerPubkeys(std::move(keys));
}

void KnownKeys::readRemoved() {
    receiver_.setRemovedPeerPubkeys(RemovedPeers(host_.system.files, host_.dataDirectory()).load());
}

std::size_t KnownKeys::pairedCount() const {
    const std::lock_guard guard(lock_);
    return pairedCount_;
}

void KnownKeys::tell(const std::string& text, const std::string& hint) {
    // standard output belongs to the thread of `main`
    asio::post(host_.tasks.executor(), [&output = host_.output, text, hint] { output.failure(text, hint); });
}

} // namespace orlinth::host
