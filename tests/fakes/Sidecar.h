#pragma once

#include "OrlinthCore/Receiving/PartialMeta.h"

namespace orlinth::fakes {

/// What the sidecar of a partial file says, if there is one.
[[nodiscard]] inline std::optional<PartialMeta> sidecarOf(platform::FileSystem& files, const platform::Path& partial) {
    return PartialMetaIO::load(*files.openFolder(partial.parent_path()),
                               platform::FileName(partial.filename().native()));
}

} // namespace orlinth::fakes
