#include "OrlinthCore/Receiving/CollisionResolver.h"

#include "OrlinthCore/Receiving/PartialMeta.h"
#include "base/Text.h"
#include "platform/Crypto.h"
#include "platform/SystemError.h"

#include <algorithm>
#include <utility>

namespace orlinth {

using platform::FileSystem;
using platform::Path;

namespace {

constexpr const char* nameForNothing = "received";

/// A base name in its two parts, for numbering.
struct SplitName {
    explicit SplitName(const std::string& baseName)
        : whole(baseName), stem(withoutPathExtension(baseName)), extension(pathExtension(baseName)) {}

    [[nodiscard]] std::string candidate(int number) const {
        if (number == 1) {
            return whole;
        }
        return stem + " " + std::to_string(number) + (extension.empty() ? "" : "." + extension);
    }

    std::string whole;
    std::string stem;
    std::string extension;
};

Path partialOf(const Path& final) {
    return Path(final) += CollisionResolver::partialSuffix;
}

bool isLink(const FileSystem& files, const Path& path) noexcept {
    try {
        return files.resolveLinks(path) != path;
    } catch (const platform::SystemError& error) {
        if (error.code() == std::errc::filename_too_long) {
            return false;
        }
        // Where the folder itself can be looked into, it is the way of a link that cannot be followed to its end.
        return files.exists(path.parent_path() / ".");
    } catch (const std::exception&) {
        return false;
    }
}

/// Whether something has this name. A link that leads nowhere does: no file can be made or moved there.
bool isTaken(const FileSystem& files, const Path& path) noexcept {
    return files.exists(path) || isLink(files, path);
}

bool isTakenWithPartial(const FileSystem& files, const Path& path) {
    return isTaken(files, path) || isTaken(files, partialOf(path));
}

/// How much an earlier attempt of this very transfer left; nothing if the partial file is somebody else's. Only a
/// regular file under its own name can be ours: a link would lead the data elsewhere, a pipe would hold the receiver.
std::optional<std::int64_t> resumeOffset(FileSystem& files, const Path& partial, const std::string& transferId) {
    const std::optional<PartialMeta> meta = PartialMetaIO::load(files, partial);
    if (!meta || meta->transfer_id != transferId || isLink(files, partial)) {
        return std::nullopt;
    }
    try {
        const std::optional<platform::FileStatus> status = files.status(partial);
        if (status && status->kind != platform::FileKind::regular) {
            return std::nullopt;
        }
        return status ? status->size : 0;
    } catch (const std::exception&) {
        return 0;
    }
}

} // namespace

std::string CollisionResolver::sanitize(const std::string& name) {
    std::string safe = lastPathComponent(name);
    std::ranges::replace(safe, '\0', '_');
    std::ranges::replace(safe, '/', '_');
    std::ranges::replace(safe, '\\', '_');
    safe = trimmed(safe);
    return safe.empty() || safe == "." || safe == ".." ? nameForNothing : safe;
}

CollisionResolver::Target CollisionResolver::resolveTarget(FileSystem& files, const Path& dir,
                                                           const std::string& baseName, const std::string& transferId) {
    const SplitName name(baseName);
    for (int number = 1; number <= lastCandidate; ++number) {
        const Path final = dir / name.candidate(number);
        const Path partial = partialOf(final);
        if (isTaken(files, final)) {
            continue;
        }
        if (!isTaken(files, partial)) {
            return {final, partial, 0};
        }
        if (const std::optional<std::int64_t> offset = resumeOffset(files, partial, transferId)) {
            return {final, partial, *offset};
        }
    }
    const std::string ending = name.extension.empty() ? "" : "." + name.extension;
    const Path final = dir / (name.stem + "-" + platform::randomUuidText() + ending);
    return {final, partialOf(final), 0};
}

Path CollisionResolver::resolveFinalURL(FileSystem& files, const Path& dir, const std::string& baseName) {
    const SplitName name(baseName);
    for (int number = 1; number <= lastCandidate; ++number) {
        const Path candidate = dir / name.candidate(number);
        if (!isTakenWithPartial(files, candidate)) {
            return candidate;
        }
    }
    // The dot is there without an extension too, unlike in resolveTarget(): other receivers name such files so.
    return dir / (name.stem + "-" + platform::randomUuidText() + "." + name.extension);
}

} // namespace orlinth
