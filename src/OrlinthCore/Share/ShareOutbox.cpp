#include "OrlinthCore/Share/ShareOutbox.h"

#include "platform/SystemError.h"
#include "platform/WholeFile.h"

namespace orlinth {
namespace {

constexpr std::uint32_t ownersFolder = 0700;
constexpr std::uint32_t ownersFile = 0600;

} // namespace

Json ShareOutbox::SharePeer::toJson() const {
    return {{"hostname", hostname}, {"pubkey", pubkey}, {"subtitle", subtitle}};
}

ShareOutbox::SharePeer ShareOutbox::SharePeer::fromJson(const Json& json) {
    return {.hostname = requireString(json, "hostname"),
            .pubkey = PeerKey(requireString(json, "pubkey")),
            .subtitle = requireString(json, "subtitle")};
}

Json ShareOutbox::Manifest::toJson() const {
    Json json = {{"id", id}, {"createdAtMs", toNumber(createdAtMs)}, {"files", files}};
    if (targetPubkeys) {
        json["targetPubkeys"] = *targetPubkeys;
    }
    return json;
}

ShareOutbox::Manifest ShareOutbox::Manifest::fromJson(const Json& json) {
    Manifest manifest{.id = requireString(json, "id"),
                      .createdAtMs = fromEpochMilliseconds(requireInt64(json, "createdAtMs")),
                      .files = requireStrings(json, "files")};
    if (const std::optional<std::vector<std::string>> keys = optionalStrings(json, "targetPubkeys")) {
        manifest.targetPubkeys.emplace(keys->begin(), keys->end());
    }
    return manifest;
}

ShareOutbox::ShareOutbox(platform::FileSystem& files, const platform::UserDirectories& directories)
    : files_(files), container_(directories.data / appGroupID) {}

std::optional<platform::Path> ShareOutbox::outboxRoot() const {
    return hasContainer() ? std::optional(container_ / "Outbox") : std::nullopt;
}

std::optional<platform::Path> ShareOutbox::peersFileURL() const {
    return hasContainer() ? std::optional(container_ / peersName) : std::nullopt;
}

bool ShareOutbox::hasContainer() const {
    return !containerProblem();
}

std::optional<std::string> ShareOutbox::containerProblem() const {
    try {
        files_.createDirectories(container_, ownersFolder);
        return std::nullopt;
    } catch (const platform::SystemError& error) {
        return error.description();
    }
}

std::vector<ShareOutbox::SharePeer> ShareOutbox::decodePeers(ByteView text) {
    const Json list = parseJson(text);
    if (!list.is_array()) {
        throw JsonError(std::string("expected an array, found ") + list.type_name());
    }
    std::vector<SharePeer> peers;
    for (const Json& entry : list) {
        peers.push_back(SharePeer::fromJson(entry));
    }
    return peers;
}

std::string ShareOutbox::encodePeers(const std::vector<SharePeer>& peers) {
    Json list = Json::array();
    for (const SharePeer& peer : peers) {
        list.push_back(peer.toJson());
    }
    return compactJson(list);
}

std::vector<ShareOutbox::SharePeer> ShareOutbox::readPeers() const {
    try {
        return decodePeers(platform::readWholeFile(files_, container_ / peersName));
    } catch (const Error&) {
        return {}; // a list of which a part is missing would look complete
    }
}

void ShareOutbox::writePeers(const std::vector<SharePeer>& peers) const noexcept {
    try {
        if (const std::optional<platform::Path> file = peersFileURL()) {
            platform::writeWholeFile(files_, *file, asBytes(encodePeers(peers)), ownersFile, platform::Flush::now,
                                     platform::Links::follow);
        }
    } catch (const std::exception&) {
        return; // the picker then shows the list of before, and the next change writes it anew
    }
}

} // namespace orlinth
