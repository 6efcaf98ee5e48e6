#pragma once

#include "OrlinthCore/Receiving/CollisionResolver.h"
#include "OrlinthCore/SecureChannel/TransportFrame.h"
#include "platform/System.h"

#include <memory>

namespace orlinth {

/// What a completed receive came to.
struct ReceivedFile {
    platform::Path savedAt;
    std::int64_t bytesWritten = 0;   ///< in the file, counting what an earlier session left
    std::int64_t advertisedSize = 0; ///< as the offer said
    std::string mime;
    std::string remoteEndpoint;
    double durationSeconds = 0; ///< from the offer to completion
    std::int64_t bytesReceivedThisSession = 0;
    std::int64_t resumedFromOffset = 0;

    bool operator==(const ReceivedFile&) const = default;
};

/// One file on its way in: the partial file, its sidecar and the rules for both, shared by every receiving path.
///
/// Begun by an accepted offer, ended by finish() or by destruction, which flushes the data and leaves partial file and
/// sidecar for a resume. While it lives the partial file is locked against every other receiver of this computer.
///
/// A new sidecar is flushed only once there is something to resume: with the first 8 MiB, or on destruction. A power
/// cut before that leaves a partial file that is nobody's, and the transfer starts anew under the next free name; a
/// file that is complete sooner is spared two flushes, which others would have to wait for behind the lock on the
/// folder. Not thread-safe; calls block on the disk.
class IncomingFile {
public:
    /// Chooses the target, opens or makes the partial file and writes its sidecar, as one step against other receivers
    /// of the same folder (a lock on the folder). `system` must outlive the object.
    /// @throws ReceiveError::fileWriteFailed
    [[nodiscard]] static IncomingFile begin(platform::System& system, const platform::Path& downloadsDir,
                                            const TransportMessage::FileOffer& offer);
    IncomingFile(IncomingFile&&) noexcept;
    IncomingFile& operator=(IncomingFile&&) = delete;
    ~IncomingFile();

    /// The answer to the offer.
    [[nodiscard]] TransportMessage resumeMessage() const;
    [[nodiscard]] const TransportMessage::FileOffer& offer() const noexcept { return offer_; }
    /// In the partial file so far, counting what an earlier session left.
    [[nodiscard]] std::int64_t bytesWritten() const noexcept { return bytesWritten_; }

    /// @throws ReceiveError::fileWriteFailed
    void append(ByteView data);

    /// Flushes, moves the file into place under a free name, and removes the sidecar; then a power cut cannot undo it.
    /// The sender's Done is trusted: nothing is compared with the advertised size. Never replaces a file that appeared
    /// meanwhile.
    /// @throws ReceiveError::fileWriteFailed; partial file and sidecar stay then, unless the file has been moved and
    /// only
    ///     flushing the folder failed.
    [[nodiscard]] ReceivedFile finish(const std::string& remoteEndpoint);

private:
    IncomingFile(platform::System& system, platform::Path downloadsDir, TransportMessage::FileOffer offer);
    void open();
    void saveSidecar();
    void keepSidecar();
    void abandonIfEmpty() noexcept;
    void moveIntoPlace();

    platform::System* system_;
    platform::Path downloadsDir_;
    TransportMessage::FileOffer offer_;
    platform::Clock::Instant offerTime_;
    CollisionResolver::Target target_;
    std::unique_ptr<platform::File> partial_; // null once finished
    std::int64_t bytesWritten_ = 0;
    std::int64_t bytesThisSession_ = 0;
    std::int64_t writtenBack_ = 0;   // up to where write-back was started
    bool sidecarNeedsFlush_ = false; // a power cut could still take it
};

} // namespace orlinth
