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

/// Bytes behind the final name in that of the sidecar, the longest of the three.
constexpr std::size_t suffixBytes =
    std::string_view(CollisionResolver::partialSuffix).size() + std::string_view(PartialMetaIO::suffix).size();

/// A base name in its two parts, for numbering, in a folder whose names have at most `longestName` bytes.
class SplitName {
public:
    SplitName(const std::string& baseName, std::size_t longestName)
        : longest_(longestName > suffixBytes ? longestName - suffixBytes : 0), stem_(baseName) {
        const std::string extension = pathExtension(baseName);
        constexpr std::size_t leastRoom = 64; // for stem and number: what leaves less is no extension
        if (!extension.empty() && extension.size() + leastRoom <= longest_) {
            stem_ = withoutPathExtension(baseName);
            ending_ = "." + extension;
        }
    }

    [[nodiscard]] std::string candidate(int number) const {
        return with(number == 1 ? "" : " " + std::to_string(number), ending_);
    }
    [[nodiscard]] std::string unique() const { return with("-" + platform::randomUuidText(), ending_); }
    /// The same, with a dot at its end without an extension too.
    [[nodiscard]] std::string uniqueWithDot() const {
        return with("-" + platform::randomUuidText(), ending_.empty() ? "." : ending_);
    }

private:
    [[nodiscard]] std::string with(const std::string& number, const std::string& ending) const {
        const std::size_t rest = number.size() + ending.size();
        if (stem_.size() + rest <= longest_) {
            return stem_ + number + ending;
        }
        const std::string stem = trimmed(firstCharactersWithin(stem_, longest_ > rest ? longest_ - rest : 0));
        return (stem.empty() ? nameForNothing : stem) + number + ending;
    }

    std::size_t longest_;
    std::string stem_;
    std::string ending_; ///< with its dot
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
    const SplitName name(baseName, files.longestName(dir));
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
    const Path final = dir / name.unique();
    return {final, partialOf(final), 0};
}

Path CollisionResolver::resolveFinalURL(FileSystem& files, const Path& dir, const std::string& baseName) {
    const SplitName name(baseName, files.longestName(dir));
    for (int number = 1; number <= lastCandidate; ++number) {
        const Path candidate = dir / name.candidate(number);
        if (!isTakenWithPartial(files, candidate)) {
            return candidate;
        }
    }
    // The dot is there without an extension too, unlike in resolveTarget(): other receivers name such files so.
    return dir / name.uniqueWithDot();
}

} // namespace orlinth
