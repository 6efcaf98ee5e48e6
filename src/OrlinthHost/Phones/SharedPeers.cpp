#include "OrlinthHost/Phones/SharedPeers.h"

#include "OrlinthCore/Share/ShareOutbox.h"
#include "OrlinthHost/HumanText.h"
#include "OrlinthHost/Phones/AddressMemory.h"
#include "OrlinthHost/Phones/LastPhone.h"
#include "OrlinthHost/Phones/PeerSelection.h"
#include "platform/SystemError.h"
#include "platform/WholeFile.h"

#include <asio/post.hpp>

#include <algorithm>
#include <map>

namespace orlinth::host {

namespace {

/// Two phones of one model often have one name; when a phone was last there, or else where, and since when it is
/// paired, tells them apart. It is read later, so it says nothing of how long ago that is.
std::string subtitleOf(const PeerRecord& record, const std::map<PeerKey, EpochMilliseconds>& meetings) {
    constexpr std::size_t dateCharacters = 10;
    const auto met = meetings.find(record.peer_pubkey);
    const std::string place = met != meetings.end() ? "last here " + humanTime(met->second) : record.peer_ip;
    if (record.paired_at_epoch_ms <= EpochMilliseconds()) {
        return place;
    }
    return place + " · paired " + humanTime(record.paired_at_epoch_ms).substr(0, dateCharacters);
}

bool isSame(const std::optional<platform::FileStatus>& one, const std::optional<platform::FileStatus>& other) {
    return one && other && platform::isSameContent(*one, *other);
}

} // namespace

void updateSharedPeers(const Home& home) noexcept {
    try {
        const ShareOutbox outbox(home.system.files, home.system.directories);
        const std::optional<platform::Path> file = outbox.peersFileURL();
        if (!file) {
            return;
        }
        // from before the reading: of two processes the one that writes last has then also read last
        const platform::FileLock lock(home.system.files, *file);
        const std::map<PeerKey, EpochMilliseconds> meetings =
            AddressMemory(home.system.files, home.system.clock, home.system.log, home.dataDirectory()).lastMeetings();
        std::vector<ShareOutbox::SharePeer> peers;
        std::vector<PeerRecord> records = home.peers().loadBook().peers;
        if (const std::optional<PeerRecord> likely = likelyPeer(home)) { // first, which the sheet switches on
            const auto at = std::ranges::find(records, likely->peer_pubkey, &PeerRecord::peer_pubkey);
            std::rotate(records.begin(), at, at == records.end() ? at : at + 1);
        }
        for (const PeerRecord& record : records) {
            peers.push_back({.hostname = record.peer_hostname,
                             .pubkey = record.peer_pubkey,
                             .subtitle = subtitleOf(record, meetings)});
        }
        outbox.writePeers(peers);
    } catch (const std::exception& error) {
        home.system.log.write(platform::LogLevel::error, "com.tarvinex.orlinth", "share",
                              "cannot update the share sheet's list of phones: " + describe(error));
    }
}

SharedPeersUpdates::SharedPeersUpdates(const Home& home)
    : home_(home),
      timer_(home.system.clock.makeTimer(home.executor)),
      work_(home.system.queues, "orlinth.serve.sharing") {}

void SharedPeersUpdates::update() {
    work_.add([this] { look(); });
}

/// On the thread.
void SharedPeersUpdates::look() {
    Status store;
    Status meetings;
    Status last;
    try {
        store = home_.system.files.status(home_.peers().fileURL());
        meetings = home_.system.files.status(home_.dataDirectory() / AddressMemory::fileName);
        last = home_.system.files.status(home_.dataDirectory() / LastPhone::fileName);
    } catch (const platform::SystemError&) {
        return; // the list is a convenience, and the next change writes it anew
    }
    const bool isSameOrder = isSame(last_, last) || (!last_ && !last);
    const bool isSameList = isSame(store_, store) && isSameOrder; // but for when they were met
    if (isSameList && (isSame(meetings_, meetings) || !meetings)) {
        return;
    }
    const platform::Clock::Instant now = home_.system.clock.now();
    if (isSameList && now - writtenAt_ < meetingsInterval) {
        asio::post(home_.executor, [this, left = meetingsInterval - (now - writtenAt_)] { updateIn(left); });
        return;
    }
    updateSharedPeers(home_);
    store_ = store;
    meetings_ = meetings;
    last_ = last;
    writtenAt_ = now;
}

void SharedPeersUpdates::updateIn(Seconds time) {
    if (!isStopping_) {
        timer_->arm(time, [this] { update(); });
    }
}

Task<> SharedPeersUpdates::finish() {
    isStopping_ = true;
    timer_->disarm();
    co_await work_.finish();
}

} // namespace orlinth::host
