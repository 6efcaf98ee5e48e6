#include "OrlinthCore/Receiving/PartialMeta.h"

namespace orlinth {

Json PartialMeta::toJson() const {
    return {
        {"transfer_id", transfer_id},
        {"advertised_size", advertised_size},
        {"started_at_epoch_ms", started_at_epoch_ms},
    };
}

PartialMeta PartialMeta::fromJson(const Json& json) {
    PartialMeta meta;
    meta.transfer_id = requireString(json, "transfer_id");
    meta.advertised_size = requireInt64(json, "advertised_size");
    meta.started_at_epoch_ms = requireInt64(json, "started_at_epoch_ms");
    return meta;
}

platform::Path PartialMetaIO::metaURL(const platform::Path& partial) {
    return platform::Path(partial) += suffix;
}

void PartialMetaIO::save(platform::FileSystem& files, const PartialMeta& meta, const platform::Path& partial,
                         platform::Flush flush) {
    constexpr std::uint32_t permissions = 0644;
    platform::writeWholeFile(files, metaURL(partial), asBytes(prettyJson(meta.toJson())), permissions, flush);
}

void PartialMetaIO::flush(platform::FileSystem& files, const platform::Path& partial) {
    const platform::Path sidecar = files.resolveLinks(metaURL(partial)); // as in saving it
    files.open(sidecar, platform::OpenMode::write)->flush();
    files.flushDirectory(sidecar.parent_path());
}

std::optional<PartialMeta> PartialMetaIO::load(platform::FileSystem& files, const platform::Path& partial) {
    try {
        // Looked at through the open file: whatever has the name may be another thing in the next moment.
        const std::unique_ptr<platform::File> file =
            files.open(metaURL(partial), platform::OpenMode::read, platform::Links::refuse);
        const platform::FileStatus status = file->status();
        if (status.kind != platform::FileKind::regular || status.size > maxBytes) { // a pipe might never end
            return std::nullopt;
        }
        Bytes content(static_cast<std::size_t>(status.size));
        content.resize(file->read(content));
        return PartialMeta::fromJson(parseJson(content));
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

void PartialMetaIO::remove(platform::FileSystem& files, const platform::Path& partial) {
    const platform::Path sidecar = metaURL(partial);
    if (!files.exists(sidecar)) {
        return;
    }
    try {
        files.remove(sidecar);
    } catch (const std::exception&) {
        // Without its partial file a sidecar means nothing to anyone.
    }
}

} // namespace orlinth
