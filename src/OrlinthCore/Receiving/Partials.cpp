#include "OrlinthCore/Receiving/Partials.h"

#include "OrlinthCore/Receiving/CollisionResolver.h"
#include "platform/SystemError.h"

#include <algorithm>

namespace orlinth {
namespace {

constexpr std::string_view partialSuffix = CollisionResolver::partialSuffix;

/// The name without the suffix; nothing for names that are none of a partial file.
std::optional<platform::FileName> finalOf(const std::string& name) {
    if (!name.ends_with(partialSuffix) || name.size() == partialSuffix.size()) {
        return std::nullopt;
    }
    std::string final = name.substr(0, name.size() - partialSuffix.size());
    return final == "." || final == ".." ? std::nullopt : std::optional(platform::FileName(std::move(final)));
}

/// Nothing unless it is one that a receiver may continue.
std::optional<PartialDownload> lookAt(platform::Folder& folder, const platform::FileName& partial,
                                      const platform::FileName& final) {
    const std::optional<platform::FileStatus> status = folder.status(partial);
    if (!status || !CollisionResolver::isOwnRegularFile(folder, *status)) {
        return std::nullopt;
    }
    std::optional<PartialMeta> meta = PartialMetaIO::load(folder, partial);
    if (!meta) {
        return std::nullopt;
    }
    return PartialDownload{.partial = partial,
                           .final = final,
                           .meta = *std::move(meta),
                           .size = status->size,
                           .changedAt = status->modifiedAt};
}

} // namespace

std::vector<PartialDownload> Partials::in(platform::Folder& folder) {
    std::vector<PartialDownload> found;
    std::vector<std::string> names = folder.list();
    std::ranges::sort(names);
    for (const std::string& name : names) {
        const std::optional<platform::FileName> final = finalOf(name);
        if (!final) {
            continue;
        }
        try {
            if (std::optional<PartialDownload> download = lookAt(folder, platform::FileName(name), *final)) {
                found.push_back(*std::move(download));
            }
        } catch (const platform::SystemError&) {
            continue; // one that cannot be looked at is none of ours, and must not hide the others
        }
    }
    return found;
}

bool Partials::remove(platform::Folder& folder, const PartialDownload& download) {
    const std::optional<PartialMeta> meta = PartialMetaIO::load(folder, download.partial);
    const std::optional<platform::FileStatus> before = folder.status(download.partial);
    if (meta != download.meta || !before || !CollisionResolver::isOwnRegularFile(folder, *before)) {
        return false;
    }
    const std::unique_ptr<platform::File> file = folder.open(download.partial, platform::OpenMode::write);
    if (!file->tryLock()) {
        return false; // a receiver goes on with it
    }
    const platform::FileStatus opened = file->status();
    const std::optional<platform::FileStatus> named = folder.status(download.partial);
    const bool isTheOne = named && platform::isSameFile(*named, opened) &&
                          CollisionResolver::isOwnRegularFile(folder, opened) && opened.size == download.size &&
                          opened.modifiedAt == download.changedAt;
    if (!isTheOne) {
        return false;
    }
    folder.remove(download.partial);
    PartialMetaIO::remove(folder, download.partial);
    return true;
}

} // namespace orlinth
