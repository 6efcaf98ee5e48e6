#pragma once

#include "OrlinthCore/Receiving/CollisionResolver.h"
#include "OrlinthCore/Receiving/DeliveredTransfers.h"
#include "OrlinthCore/Receiving/DownloadRoom.h"
#include "OrlinthCore/Receiving/FolderTurns.h"
#include "OrlinthCore/SecureChannel/TransportFrame.h"
#include "base/StrongText.h"
#include "platform/Clock.h"

#include <memory>

namespace orlinth {

/// What a completed receive came to.
struct ReceivedFile {
    platform::Path savedAt;
    std::int64_t bytesWritten = 0;   ///< in the file, counting what an earlier session left
    std::int64_t advertisedSize = 0; ///< as the offer said
    std::string mime;
    std::string remoteEndpoint;
    Seconds durationSeconds{0}; ///< from the offer to completion
    std::int64_t bytesReceivedThisSession = 0;
    ByteOffset resumedFromOffset;

    bool operator==(const ReceivedFile&) const = default;
};

/// One file on its way in: the partial file, its sidecar and the rules for both, shared by every receiving path.
///
/// Begun by an accepted offer, ended by finish() or by destruction, which flushes the data and leaves partial file and
/// sidecar for a resume by the same phone. While it lives the partial file is locked against every other receiver of
/// this computer.
///
/// A new sidecar is flushed only once there is something to resume: with the first 8 MiB, or on destruction. A power
/// cut before that leaves a partial file that is nobody's, and the transfer starts anew under the next free name; a
/// file that is complete sooner is spared two flushes, which others would have to wait for while it is its turn.
///
/// A transfer that was delivered already, and whose file is still there, is only acknowledged: nothing is written, and
/// no data is taken.
///
/// Everything happens in the folder that begin() is given, by its descriptor: whoever else may write in it can take
/// names away, but neither lead a byte elsewhere nor have anything delivered that the phone has not sent.
/// Not thread-safe; calls block on the disk.
class IncomingFile {
public:
    /// The clock, and what is remembered of files that came. What is referred to outlives the object.
    struct Place {
        platform::Clock& clock;
        DeliveredTransfers& delivered;
    };

    /// Chooses the target, opens or makes the partial file and writes its sidecar, in one turn. `peerKey` is that of
    /// who offers; `offeredAt` is when the offer came, which may be long ago if a person was asked.
    /// @throws ReceiveError::fileWriteFailed; ReceiveError::fileNotTaken if somebody else writes the partial file
    [[nodiscard]] static IncomingFile begin(const Place& place, std::unique_ptr<platform::Folder> folder,
                                            const FolderTurn& turn, PeerKey peerKey,
                                            const TransportMessage::FileOffer& offer,
                                            platform::Clock::Instant offeredAt);
    IncomingFile(IncomingFile&&) noexcept;
    IncomingFile& operator=(IncomingFile&&) = delete;
    ~IncomingFile();

    /// The answer to the offer.
    [[nodiscard]] TransportMessage resumeMessage() const;
    [[nodiscard]] const TransportMessage::FileOffer& offer() const noexcept { return offer_; }
    /// In the partial file so far, counting what an earlier session left.
    [[nodiscard]] std::int64_t bytesWritten() const noexcept { return bytesWritten_; }
    /// From where on the data is wanted: the end of what an earlier session left.
    [[nodiscard]] ByteOffset resumeOffset() const noexcept { return target_.resumeOffset; }

    /// From here on no more data is taken than this allows, whatever the offer said; and `share` hears of what comes.
    void limitTo(const DownloadLimits& limits, DownloadRoom::Share share);
    /// Whether an earlier attempt has left a partial file.
    [[nodiscard]] bool isContinued() const noexcept { return target_.isContinued; }
    /// The key of who sends it.
    [[nodiscard]] const PeerKey& peerKey() const noexcept { return peerKey_; }

    /// The file that an earlier connection has delivered under this offer's id; null if there is none.
    [[nodiscard]] const DeliveredTransfers::Delivery* delivered() const noexcept;

    /// @throws ReceiveError::fileWriteFailed; ReceiveError::fileNotTaken for more data than may come;
    /// ReceiveError::protocolViolation for data of a file that is here already
    void append(ByteView data);
    /// Whether append() of so many bytes would do more than hand them to the system: ask for the disk's room, start
    /// write-back, flush the sidecar.
    [[nodiscard]] bool wouldBlock(std::size_t bytes) const noexcept;
    /// Flushes what there is for a resume, and lets go of the partial file; as destruction does. May be called again.
    void close() noexcept;

    /// Flushes the data, before a turn is taken for finish(). @throws ReceiveError::fileWriteFailed
    void flush();
    /// Moves the file into place under a free name, and removes the sidecar; then, outside the turn, makes sure that a
    /// power cut cannot undo it. The sender's Done is trusted: nothing is compared with the advertised size. Never
    /// replaces a file that appeared meanwhile. On return it is remembered as delivered.
    /// @throws ReceiveError::fileWriteFailed; partial file and sidecar stay then, unless the file has been moved and
    /// only
    ///     flushing the folder failed.
    [[nodiscard]] ReceivedFile finish(FolderTurn turn, const std::string& remoteEndpoint);

    /// The folder that it goes into.
    [[nodiscard]] const platform::Folder& folder() const noexcept { return *folder_; }

private:
    IncomingFile(const Place& place, std::unique_ptr<platform::Folder> folder, PeerKey peerKey,
                 TransportMessage::FileOffer offer, platform::Clock::Instant offeredAt);
    void open();
    void requireRoomFor(std::int64_t bytes);
    [[nodiscard]] bool isTimeToLook(std::int64_t size) const noexcept;
    [[nodiscard]] bool acknowledgeIfDelivered();
    void saveSidecar();
    void keepSidecar();
    void abandonIfEmpty() noexcept;
    void moveIntoPlace();
    void leavePartialName();
    void tidyUpBehindDelivered();

    Place place_;
    std::unique_ptr<platform::Folder> folder_; // of the delivered file, if there is one
    PeerKey peerKey_;
    TransportMessage::FileOffer offer_;
    TransferId transferId_; // the offer's
    platform::Clock::Instant offerTime_;
    CollisionResolver::Target target_;
    std::unique_ptr<platform::File> partial_; // null once finished
    std::optional<DeliveredTransfers::Delivery> delivered_;
    std::int64_t bytesWritten_ = 0;
    std::int64_t bytesThisSession_ = 0;
    ByteOffset writtenBack_; // up to where write-back was started
    DownloadLimits limits_;
    std::optional<DownloadRoom::Share> share_;
    std::int64_t roomSeenAt_ = 0;    // bytes written when there was last found to be room
    bool isFlushed_ = false;         // all that was written
    bool sidecarNeedsFlush_ = false; // a power cut could still take it
};

} // namespace orlinth
