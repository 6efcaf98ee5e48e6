#pragma once

#include "platform/FileSystem.h"

#include <string>
#include <string_view>

namespace orlinth {

/// Turns the name that a phone announces into a safe local one, and finds where the file goes without overwriting
/// anything. Decides by looking at the folder alone; nothing here throws.
///
/// A name counts as taken when it, or it with ".partial" behind it, exists; a link that leads nowhere does exist here.
/// Base names are what sanitize() returned. Where a name with its number would leave no room for the two suffixes
/// behind it in what the file system takes for a name, its stem is shortened, and its extension kept.
struct CollisionResolver {
    static constexpr const char* partialSuffix = ".partial";
    /// "photo.jpg", "photo 2.jpg", ... "photo 9999.jpg", then a name with a UUID.
    static constexpr int lastCandidate = 9999;

    struct Target {
        platform::Path final;
        platform::Path partial;
        std::int64_t resumeOffset = 0; ///< bytes that an earlier attempt of the same transfer left; 0 for a fresh one
    };

    /// The last path component without NUL, slashes, backslashes and white space around it; "received" if nothing is
    /// left.
    [[nodiscard]] static std::string sanitize(const std::string& name);
    /// The first free name, or the partial file that an earlier attempt of this very transfer left: a regular file, no
    /// link, whose sidecar has the same id. A new attempt meets the same target, unless it was made or taken meanwhile.
    [[nodiscard]] static Target resolveTarget(platform::FileSystem& files, const platform::Path& dir,
                                              const std::string& baseName, const std::string& transferId);
    /// The first free name, for a file whose own was taken while it came in. Should that be taken too before the file
    /// is there, another call finds another.
    [[nodiscard]] static platform::Path resolveFinalURL(platform::FileSystem& files, const platform::Path& dir,
                                                        const std::string& baseName);
};

} // namespace orlinth
