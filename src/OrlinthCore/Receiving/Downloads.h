#pragma once

#include "OrlinthCore/Receiving/IncomingFile.h"

namespace orlinth {

/// The downloads folder as the receiving paths use it: what they do in it goes through here.
///
/// The path is looked up at each offer, as its owner may have removed the folder, or put another one there; from then
/// on the file goes into the folder that was found (platform::Folder).
///
/// Threading: any thread. Tasks block on the disk, but do not wait for other programs there. Outlives its files.
class Downloads {
public:
    /// What `system` refers to outlives this.
    Downloads(platform::System& system, platform::Path folder);

    [[nodiscard]] const platform::Path& path() const noexcept { return path_; }

    /// Begins a file in its turn (IncomingFile::begin()), in a folder that is made if it is missing.
    /// @throws ReceiveError::fileWriteFailed; Cancelled
    [[nodiscard]] Task<IncomingFile> begin(std::string phone, TransportMessage::FileOffer offer,
                                           platform::Clock::Instant offeredAt);
    /// Whether begin() would find the file here already.
    [[nodiscard]] bool isDelivered(const std::string& phone, const TransportMessage::FileOffer& offer);
    /// Ends a file in its turn (IncomingFile::finish()). `file` outlives the task.
    /// @throws ReceiveError::fileWriteFailed; Cancelled, and then partial file and sidecar stay
    [[nodiscard]] Task<ReceivedFile> finish(IncomingFile& file, std::string remoteEndpoint);

private:
    [[nodiscard]] std::unique_ptr<platform::Folder> open() const;

    platform::System& system_;
    platform::Path path_;
    DeliveredTransfers delivered_;
    FolderTurns turns_;
};

} // namespace orlinth
