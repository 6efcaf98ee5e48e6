#pragma once

#include "OrlinthCore/Receiving/IncomingFile.h"
#include "base/Mutex.h"
#include "platform/Storage.h"
#include "platform/WorkQueues.h"

#include <cstdint>
#include <map>
#include <optional>
#include <utility>

namespace orlinth {

/// Where the files of an offer go, and what is let into that folder.
struct DownloadPlace {
    platform::Path folder;
    DownloadLimits limits = {};
};

/// The downloads folders as the receiving paths use them: what they do in one goes through here. Mostly it is the usual
/// one, and a call may name another place.
///
/// A path is looked up at each offer, as its owner may have removed the folder, or put another one there; from then
/// on the file goes into the folder that was found (platform::Folder).
///
/// Threading: any thread. Tasks wait for the disk and for other programs where that holds nobody up
/// (platform::blocking()); data is handed to the system in place. Outlives its files.
class Downloads {
public:
    /// `folder` is the usual one. `queues` outlives this.
    Downloads(platform::Storage storage, platform::WorkQueues& queues, platform::Path folder);

    /// Of the usual folder. Before the first file.
    void setLimits(const DownloadLimits& limits) noexcept { usual_.limits = limits; }
    /// Where files go if nothing else is said.
    [[nodiscard]] const DownloadPlace& usualPlace() const noexcept { return usual_; }

    /// What begin() would come to.
    struct Prospect {
        bool isDelivered = false; ///< the file is here already
        /// Why it would fail for reasons that the sender should be told of by a refusal; nothing if it would not.
        std::optional<DownloadRefusal> refusal;
    };
    /// Whether the offer is one that can be worked with at all. @throws ReceiveError::protocolViolation
    static void requireSensible(const TransportMessage::FileOffer& offer);
    /// Transfers under way count with what is still to come, and this one with what is not here yet. Makes no folder:
    /// of one that is not there nothing can be said.
    /// @throws ReceiveError::protocolViolation for an offer that makes no sense; ReceiveError::fileWriteFailed
    [[nodiscard]] Task<Prospect> prospectOf(PeerKey peerKey, TransportMessage::FileOffer offer,
                                            std::optional<DownloadPlace> place = std::nullopt);
    /// What has come of an offer: one of the two.
    struct Beginning {
        std::optional<IncomingFile> file;
        std::optional<DownloadRefusal> refusal;
    };
    /// Begins a file in its turn (IncomingFile::begin()), in a folder that is made if it is missing. What an earlier
    /// attempt has left in another folder is not looked for: it stays there.
    /// @throws ReceiveError::protocolViolation for an offer that makes no sense; ReceiveError::fileWriteFailed,
    /// ReceiveError::fileNotTaken; Cancelled
    [[nodiscard]] Task<Beginning> beginUnlessRefused(PeerKey peerKey, TransportMessage::FileOffer offer,
                                                     platform::Clock::Instant offeredAt,
                                                     std::optional<DownloadPlace> place = std::nullopt);
    /// The same; a refusal is thrown too, as ReceiveError::fileWriteFailed.
    [[nodiscard]] Task<IncomingFile> begin(PeerKey peerKey, TransportMessage::FileOffer offer,
                                           platform::Clock::Instant offeredAt);
    /// What has come of it (IncomingFile::append()). `file` and `data` outlive the task.
    /// @throws ReceiveError::fileWriteFailed, ReceiveError::fileNotTaken, ReceiveError::protocolViolation; Cancelled
    [[nodiscard]] Task<> append(IncomingFile& file, ByteView data);
    /// Leaves what has come for a resume (IncomingFile::close()). `file` outlives the task.
    [[nodiscard]] Task<> close(IncomingFile& file);
    /// Ends a file in its turn (IncomingFile::finish()), if its folder is still where it was. `file` outlives the task.
    /// @throws ReceiveError::fileWriteFailed, ReceiveError::fileNotTaken; Cancelled, and then partial file and sidecar
    /// stay
    [[nodiscard]] Task<ReceivedFile> finish(IncomingFile& file, std::string remoteEndpoint);

private:
    /// How many partial files each phone has in a folder; more than there are, if some were removed since.
    struct Census {
        platform::Clock::Instant takenAt;
        std::map<PeerKey, std::size_t> partials;
    };

    /// Device and inode.
    using FolderId = std::pair<std::uint64_t, std::uint64_t>;
    [[nodiscard]] static FolderId idOf(const platform::Folder& folder);
    [[nodiscard]] DownloadRoom roomOn(const platform::Folder& folder);
    [[nodiscard]] Task<Beginning> beginHere(PeerKey peerKey, TransportMessage::FileOffer offer,
                                            platform::Clock::Instant offeredAt, DownloadPlace place);
    [[nodiscard]] Task<std::optional<ReceivedFile>> finishHere(IncomingFile& file, std::string remoteEndpoint);
    [[nodiscard]] bool isDelivered(const PeerKey& peerKey, const TransportMessage::FileOffer& offer);
    [[nodiscard]] std::unique_ptr<platform::Folder> open(const platform::Path& path) const;
    [[nodiscard]] std::optional<DownloadRefusal>
    refusalOf(const PeerKey& peerKey, const TransportMessage::FileOffer& offer, const DownloadPlace& place);
    [[nodiscard]] std::optional<DownloadRefusal> refusalIn(platform::Folder& folder, const DownloadLimits& limits,
                                                           const CollisionResolver::Transfer& transfer,
                                                           const TransportMessage::FileOffer& offer);
    [[nodiscard]] bool hasTooManyPartials(platform::Folder& folder, const PeerKey& peerKey);
    void requireInPlace(const platform::Folder& folder) const;
    Census& takeCensus(platform::Folder& folder) ORLINTH_REQUIRES(lock_);
    void countPartial(const platform::Folder& folder, const PeerKey& peerKey, bool isNew);

    platform::Storage storage_;
    platform::WorkQueues& queues_;
    DownloadPlace usual_;
    DeliveredTransfers delivered_;
    FolderTurns turns_;
    Mutex lock_;
    /// By device: what is promised to one disk takes nothing from another.
    std::map<std::uint64_t, DownloadRoom> rooms_ ORLINTH_GUARDED_BY(lock_);
    /// Of the folders that were used last.
    std::map<FolderId, Census> censuses_ ORLINTH_GUARDED_BY(lock_);
};

} // namespace orlinth
