#include "OrlinthHost/Phones/SharedPeers.h"

#include "OrlinthCore/Share/ShareOutbox.h"
#include "OrlinthHost/HumanText.h"
#include "platform/SystemError.h"
#include "platform/WholeFile.h"

namespace orlinth::host {

namespace {

/// Two phones of one model often have one name; where a phone is, and since when it is paired, tells them apart.
std::string subtitleOf(const PeerRecord& record) {
    constexpr std::size_t dateCharacters = 10;
    if (record.paired_at_epoch_ms <= EpochMilliseconds()) {
        return record.peer_ip;
    }
    return record.peer_ip + " · paired " + humanTime(record.paired_at_epoch_ms).substr(0, dateCharacters);
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
        std::vector<ShareOutbox::SharePeer> peers;
        for (const PeerRecord& record : home.peers().loadBook().peers) {
            peers.push_back(
                {.hostname = record.peer_hostname, .pubkey = record.peer_pubkey, .subtitle = subtitleOf(record)});
        }
        outbox.writePeers(peers);
    } catch (const std::exception& error) {
        home.system.log.write(platform::LogLevel::error, "com.tarvinex.orlinth", "share",
                              "cannot update the share sheet's list of phones: " + describe(error));
    }
}

void SharedPeersUpdates::update() {
    work_.add([this] {
        std::optional<platform::FileStatus> now;
        try {
            now = home_.system.files.status(home_.peers().fileURL());
        } catch (const platform::SystemError&) {
            return; // the list is a convenience, and the next change writes it anew
        }
        if (!isSame(written_, now)) {
            updateSharedPeers(home_);
            written_ = now;
        }
    });
}

Task<> SharedPeersUpdates::finish() {
    co_await work_.finish();
}

} // namespace orlinth::host
