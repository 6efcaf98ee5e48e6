#include "OrlinthCore/Receiving/CollisionResolver.h"

#include "OrlinthCore/Receiving/PartialMeta.h"
#include "base/Text.h"
#include "platform/Crypto.h"
#include "platform/SystemError.h"

#include <algorithm>
#include <utility>

namespace orlinth {

using platform::FileName;
using platform::Folder;

namespace {

constexpr const char* nameForNothing = "received";

/// Bytes behind the final name in that of the sidecar, the longest of the three.
constexpr std::size_t suffixBytes =
    std::string_view(CollisionResolver::partialSuffix).size() + std::string_view(PartialMetaIO::suffix).size();

/// A name with which nothing else is wrong, until it is not reserved any more.
std::string notReserved(std::string name) {
    for (std::size_t dot = name.rfind('.'); dot != std::string::npos && CollisionResolver::isReserved(name);
         dot = name.rfind('.')) {
        name[dot] = '_';
    }
    return name;
}

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

    [[nodiscard]] FileName candidate(int number) const {
        return with(number == 1 ? "" : " " + std::to_string(number), ending_);
    }
    [[nodiscard]] FileName unique() const { return with("-" + platform::randomUuidText(), ending_); }
    /// The same, with a dot at its end without an extension too.
    [[nodiscard]] FileName uniqueWithDot() const {
        return with("-" + platform::randomUuidText(), ending_.empty() ? "." : ending_);
    }

private:
    [[nodiscard]] FileName with(const std::string& number, const std::string& ending) const {
        return FileName(notReserved(fitting(number, ending))); // at the end: shortening may make a reserved name
    }

    [[nodiscard]] std::string fitting(const std::string& number, const std::string& ending) const {
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

/// Whether anything has this name. What cannot be looked at is left for the caller to fail on.
bool isTaken(const Folder& folder, const FileName& name) noexcept {
    try {
        return folder.status(name).has_value();
    } catch (const std::exception&) {
        return false;
    }
}

bool isTakenWithPartial(const Folder& folder, const FileName& name) {
    return isTaken(folder, name) || isTaken(folder, CollisionResolver::partialOf(name));
}

/// The end of what an earlier attempt of this very transfer left; nothing if the partial file is somebody else's.
std::optional<ByteOffset> resumeOffset(Folder& folder, const FileName& partial,
                                       const CollisionResolver::Transfer& transfer) {
    const std::optional<PartialMeta> meta = PartialMetaIO::load(folder, partial);
    if (!meta || !meta->mayBeContinuedBy(transfer.id, transfer.peerKey)) {
        return std::nullopt;
    }
    try {
        const std::optional<platform::FileStatus> status = folder.status(partial);
        if (status && !CollisionResolver::isOwnRegularFile(folder, *status)) {
            return std::nullopt;
        }
        return ByteOffset(status ? status->size : 0);
    } catch (const std::exception&) {
        return ByteOffset();
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

bool CollisionResolver::isReserved(std::string_view name) {
    const std::string folded = caseFolded(name);
    const std::size_t end = folded.find_last_not_of(". "); // FAT leaves these out
    const std::string_view seen = std::string_view(folded).substr(0, end == std::string::npos ? 0 : end + 1);
    return seen.ends_with(partialSuffix) || seen.ends_with(std::string(partialSuffix) + PartialMetaIO::suffix);
}

FileName CollisionResolver::partialOf(const FileName& final) {
    return final + partialSuffix;
}

bool CollisionResolver::isOwnRegularFile(const Folder& folder, const platform::FileStatus& partial) {
    return partial.kind == platform::FileKind::regular && folder.isOwn(partial);
}

CollisionResolver::Target CollisionResolver::resolveTarget(Folder& folder, const std::string& baseName,
                                                           const Transfer& transfer) {
    const SplitName name(baseName, folder.longestName());
    for (int number = 1; number <= lastCandidate; ++number) {
        FileName final = name.candidate(number);
        FileName partial = partialOf(final);
        if (isTaken(folder, final)) {
            continue;
        }
        if (!isTaken(folder, partial)) {
            return {std::move(final), std::move(partial), ByteOffset()};
        }
        if (const std::optional<ByteOffset> offset = resumeOffset(folder, partial, transfer)) {
            return {std::move(final), std::move(partial), *offset, true};
        }
    }
    FileName final = name.unique();
    FileName partial = partialOf(final);
    return {std::move(final), std::move(partial), ByteOffset()};
}

FileName CollisionResolver::resolveFinalURL(Folder& folder, const std::string& baseName) {
    const SplitName name(baseName, folder.longestName());
    for (int number = 1; number <= lastCandidate; ++number) {
        FileName candidate = name.candidate(number);
        if (!isTakenWithPartial(folder, candidate)) {
            return candidate;
        }
    }
    // The dot is there without an extension too, unlike in resolveTarget(): other receivers name such files so.
    return name.uniqueWithDot();
}

} // namespace orlinth
