#include "orlinth/SharedPeers.h"

#include "OrlinthCore/Share/ShareOutbox.h"
#include "platform/WholeFile.h"

namespace orlinth::host {

void updateSharedPeers(const Host& host) noexcept {
    try {
        const ShareOutbox outbox(host.system.files, host.system.directories);
        const platform::Path file = outbox.peersFileURL();
        host.system.files.createDirectories(file.parent_path(), 0700);
        // from before the reading: of two processes the one that writes last has then also read last
        const platform::FileLock lock(host.system.files, file);
        std::vector<ShareOutbox::SharePeer> peers;
        for (const PeerRecord& record : host.peers().loadBook().peers) {
            peers.push_back(
                {.hostname = record.peer_hostname, .pubkey = record.peer_pubkey, .subtitle = record.peer_ip});
        }
        outbox.writePeers(peers);
    } catch (const std::exception&) {
        return;
    }
}

} // namespace orlinth::host
