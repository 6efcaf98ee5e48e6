#pragma once

#include "base/StrongText.h"
#include "platform/Folder.h"

#include <string>
#include <string_view>

namespace orlinth {

/// Turns the name that a phone announces into a safe local one, and finds where the file goes without overwriting
/// anything. Decides by looking at the folder alone.
///
/// A name counts as taken when anything at all has it, or has it with ".partial" behind it. Base names are what
/// sanitize() returned. Where a name with its number would leave no room for the two suffixes behind it in what the
/// file system takes for a name, its stem is shortened, and its extension kept.
///
/// No file is ever delivered under a name that a partial file or a sidecar could have (isReserved()): a phone could
/// else have a file of the user's own taken for its partial download. The last dot of such a name becomes "_".
struct CollisionResolver {
    static constexpr const char* partialSuffix = ".partial";
    /// "photo.jpg", "photo 2.jpg", ... "photo 9999.jpg", then a name with a UUID.
    static constexpr int lastCandidate = 9999;

    struct Target {
        platform::FileName final;
        platform::FileName partial;
        ByteOffset resumeOffset;  ///< the end of what an earlier attempt of the same transfer left, if any
        bool isContinued = false; ///< an earlier attempt has left something, be it nothing but the name
    };
    /// Who sends what.
    struct Transfer {
        TransferId id; ///< as the offer gave it
        PeerKey peerKey;
    };

    /// The last path component without NUL, slashes, backslashes and white space around it; "received" if nothing is
    /// left.
    [[nodiscard]] static std::string sanitize(const std::string& name);
    /// Whether some file system could take the name for that of a partial file or of a sidecar: by its ending, in any
    /// letter case, with characters that show nothing in it, with dots or blanks behind it.
    [[nodiscard]] static bool isReserved(std::string_view name);
    /// The name of the partial file.
    [[nodiscard]] static platform::FileName partialOf(const platform::FileName& final);
    /// The first free name, or the partial file that an earlier attempt of this very transfer left: isOwnRegularFile(),
    /// and a sidecar of the same id and phone. A new attempt meets the same target, unless it was made or taken
    /// meanwhile.
    [[nodiscard]] static Target resolveTarget(platform::Folder& folder, const std::string& baseName,
                                              const Transfer& transfer);
    /// The first free name, for a file whose own was taken while it came in. Should that be taken too before the file
    /// is there, another call finds another.
    [[nodiscard]] static platform::FileName resolveFinalURL(platform::Folder& folder, const std::string& baseName);
    /// Whether what has the name of a partial file can be one of ours: a regular file of our own with no other name. A
    /// link would lead the data elsewhere, a pipe would hold the receiver, and the content of a stranger's file would
    /// be delivered as the phone's.
    [[nodiscard]] static bool isOwnRegularFile(const platform::Folder& folder, const platform::FileStatus& partial);
};

} // namespace orlinth
