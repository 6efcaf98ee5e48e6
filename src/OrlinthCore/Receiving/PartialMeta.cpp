#include "OrlinthCore/Receiving/PartialMeta.h"

namespace orlinth {
namespace {

constexpr const char* phoneKey = "peer_pubkey";

} // namespace

Json PartialMeta::toJson() const {
    Json json = {
        {"transfer_id", transfer_id.text()},
        {"advertised_size", advertised_size},
        {"started_at_epoch_ms", toNumber(started_at_epoch_ms)},
    };
    if (!peer_pubkey.isEmpty()) {
        json[phoneKey] = peer_pubkey.text();
    }
    return json;
}

PartialMeta PartialMeta::fromJson(const Json& json) {
    PartialMeta meta;
    meta.transfer_id = TransferId(requireString(json, "transfer_id"));
    meta.advertised_size = requireInt64(json, "advertised_size");
    meta.started_at_epoch_ms = fromEpochMilliseconds(requireInt64(json, "started_at_epoch_ms"));
    if (json.contains(phoneKey)) {
        meta.peer_pubkey = PeerKey(requireString(json, phoneKey));
    }
    return meta;
}

bool PartialMeta::mayBeContinuedBy(const TransferId& transferId, const PeerKey& peerKey) const {
    return transfer_id == transferId && (peer_pubkey.isEmpty() || peer_pubkey == peerKey);
}

platform::FileName PartialMetaIO::metaName(const platform::FileName& partial) {
    return partial + suffix;
}

void PartialMetaIO::save(platform::Folder& folder, const PartialMeta& meta, const platform::FileName& partial,
                         platform::Flush flush) {
    constexpr std::uint32_t permissions = 0600; // as its partial file: it says who sends what
    platform::writeWholeFile(folder, metaName(partial), asBytes(prettyJson(meta.toJson())), permissions, flush);
}

void PartialMetaIO::flush(platform::Folder& folder, const platform::FileName& partial) {
    folder.open(metaName(partial), platform::OpenMode::write)->flush();
    folder.flush();
}

std::optional<PartialMeta> PartialMetaIO::load(platform::Folder& folder, const platform::FileName& partial) {
    try {
        // Looked at through the open file: whatever has the name may be another thing in the next moment.
        const std::unique_ptr<platform::File> file = folder.open(metaName(partial), platform::OpenMode::read);
        const platform::FileStatus status = file->status();
        const bool isSidecar = status.kind == platform::FileKind::regular && folder.isOwn(status);
        if (!isSidecar || status.size > maxBytes) { // a pipe might never end
            return std::nullopt;
        }
        Bytes content(static_cast<std::size_t>(status.size));
        content.resize(file->read(content));
        return PartialMeta::fromJson(parseJson(content));
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

void PartialMetaIO::remove(platform::Folder& folder, const platform::FileName& partial) {
    try {
        const platform::FileName sidecar = metaName(partial);
        if (folder.status(sidecar)) {
            folder.remove(sidecar);
        }
    } catch (const std::exception&) {
        // Without its partial file a sidecar means nothing to anyone.
    }
}

} // namespace orlinth
