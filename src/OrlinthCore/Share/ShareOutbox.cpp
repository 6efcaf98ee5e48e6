#include "OrlinthCore/Share/ShareOutbox.h"

#include "platform/WholeFile.h"

namespace orlinth {

Json ShareOutbox::SharePeer::toJson() const {
    return {{"hostname", hostname}, {"pubkey", pubkey}, {"subtitle", subtitle}};
}

ShareOutbox::SharePeer ShareOutbox::SharePeer::fromJson(const Json& json) {
    return {.hostname = requireString(json, "hostname"),
            .pubkey = requireString(json, "pubkey"),
            .subtitle = requireString(json, "subtitle")};
}

ShareOutbox::ShareOutbox(platform::FileSystem& files, const platform::UserDirectories& directories)
    : files_(files), container_(directories.data / appGroupID) {}

std::vector<ShareOutbox::SharePeer> ShareOutbox::readPeers() const {
    std::vector<SharePeer> peers;
    try {
        const Json list = parseJson(platform::readWholeFile(files_, peersFileURL()));
        if (!list.is_array()) {
            return {};
        }
        for (const Json& entry : list) {
            peers.push_back(SharePeer::fromJson(entry));
        }
    } catch (const Error&) {
        return {}; // a list of which a part is missing would look complete
    }
    return peers;
}

void ShareOutbox::writePeers(const std::vector<SharePeer>& peers) const noexcept {
    try {
        Json list = Json::array();
        for (const SharePeer& peer : peers) {
            list.push_back(peer.toJson());
        }
        files_.createDirectories(container_, 0700);
        platform::writeWholeFile(files_, peersFileURL(), asBytes(compactJson(list)), 0600);
    } catch (const std::exception&) {
        return; // the picker then shows the list of before, and the next change writes it anew
    }
}

} // namespace orlinth
