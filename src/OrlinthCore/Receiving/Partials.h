#pragma once

#include "OrlinthCore/Receiving/PartialMeta.h"

#include <vector>

namespace orlinth {

/// An unfinished download: a partial file of ours with its sidecar.
struct PartialDownload {
    platform::FileName partial;
    platform::FileName final; ///< the name that it would get
    PartialMeta meta;
    std::int64_t size = 0;        ///< bytes, so far
    EpochNanoseconds changedAt{}; ///< when the last of them came
};

/// The unfinished downloads in a folder, to be listed and removed. Who may continue one is decided by
/// PartialMeta::mayBeContinuedBy(). Everything blocks on the disk.
struct Partials {
    /// By name. What has no sidecar that can be read is none of ours, and is not listed.
    /// @throws platform::SystemError if the folder cannot be listed
    [[nodiscard]] static std::vector<PartialDownload> in(platform::Folder& folder);
    /// Removes one with its sidecar, unless it is being written, or is not what it was when it was listed; returns
    /// whether it is gone. To be called in the folder's turn (FolderTurns).
    /// @throws platform::SystemError
    [[nodiscard]] static bool remove(platform::Folder& folder, const PartialDownload& download);
};

} // namespace orlinth
