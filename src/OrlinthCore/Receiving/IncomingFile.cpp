#include "OrlinthCore/Receiving/IncomingFile.h"

#include "OrlinthCore/Receiving/PartialMeta.h"
#include "OrlinthCore/Receiving/ReceiveError.h"
#include "platform/SystemError.h"

#include <cerrno>
#include <utility>

namespace orlinth {
namespace {

/// Bytes after which write-back of what came in is started, so that the flush at the end finds little to do.
constexpr std::int64_t writebackStep = 8 << 20;

/// How often a choice is made anew when another program changes the folder between looking and opening.
constexpr int maxChoices = 64;

/// Where there is no target yet.
CollisionResolver::Target noTarget() {
    const platform::FileName none("none");
    return {none, none, ByteOffset()};
}

/// Runs a step on the disk; a failure becomes fileWriteFailed with the system's words behind `what`.
template <typename Step>
auto writing(const std::string& what, Step step) {
    try {
        return step();
    } catch (const platform::SystemError& error) {
        throw ReceiveError::fileWriteFailed(what + error.description());
    }
}

/// Until it is whole, nobody else can read the file, or keep it from us by a lock.
constexpr std::uint32_t partialPermissions = 0600;

/// Best effort: some file systems have none, or those of their mount.
void setPermissions(platform::File& file, std::uint32_t permissions) {
    try {
        if (file.status().permissions != permissions) {
            file.setPermissions(permissions);
        }
    } catch (const platform::SystemError&) {
        // Then it has what that file system gives it.
    }
}

/// Opens the target's partial file, locked, or nothing if the folder changed since the target was chosen.
std::unique_ptr<platform::File> openPartial(platform::Folder& folder, CollisionResolver::Target& target) {
    const bool isNew = !folder.status(target.partial);
    std::unique_ptr<platform::File> file;
    try {
        file = isNew ? folder.open(target.partial, platform::OpenMode::createNew, partialPermissions)
                     : folder.open(target.partial, platform::OpenMode::write);
    } catch (const platform::SystemError& error) {
        const std::error_code code = error.code();
        const bool hasChanged = isNew ? code == std::errc::file_exists
                                      : code == std::errc::no_such_file_or_directory ||
                                            code == std::errc::too_many_symbolic_link_levels ||
                                            code == std::errc::is_a_directory ||
                                            code == std::errc::no_such_device_or_address; // a pipe that nobody reads
        if (hasChanged) {
            return nullptr;
        }
        throw;
    }
    if (!file->tryLock()) {
        throw ReceiveError::fileNotTaken("another receiver is writing " + target.partial.text());
    }
    // Until the lock was ours, its holder may have added to the file, or finished it and moved it away; and whoever
    // else may write in the folder may have put another one there.
    const platform::FileStatus opened = file->status();
    const std::optional<platform::FileStatus> named = folder.status(target.partial);
    const bool isTheOne = named && platform::isSameFile(*named, opened);
    if (!isTheOne || (!isNew && !CollisionResolver::isOwnRegularFile(folder, opened))) {
        return nullptr;
    }
    if (target.resumeOffset > ByteOffset()) {
        target.resumeOffset = ByteOffset(opened.size);
    }
    setPermissions(*file, partialPermissions);
    return file;
}

} // namespace

IncomingFile::IncomingFile(const Place& place, std::unique_ptr<platform::Folder> folder, PeerKey peerKey,
                           TransportMessage::FileOffer offer, platform::Clock::Instant offeredAt)
    : place_(place),
      folder_(std::move(folder)),
      peerKey_(std::move(peerKey)),
      offer_(std::move(offer)),
      transferId_(offer_.transfer_id),
      offerTime_(offeredAt),
      target_(noTarget()) {}

IncomingFile::IncomingFile(IncomingFile&&) noexcept = default;

IncomingFile::~IncomingFile() {
    close();
}

void IncomingFile::close() noexcept {
    if (!partial_) {
        return;
    }
    try {
        flush();
        keepSidecar();
    } catch (const std::exception&) {
        // Whatever ended the transfer is being reported; a resume starts from what the disk has kept.
    }
    partial_.reset();
}

IncomingFile IncomingFile::begin(const Place& place, std::unique_ptr<platform::Folder> folder,
                                 const FolderTurn& /*turn*/, PeerKey peerKey, const TransportMessage::FileOffer& offer,
                                 platform::Clock::Instant offeredAt) {
    IncomingFile incoming(place, std::move(folder), std::move(peerKey), offer, offeredAt);
    writing("", [&] { incoming.open(); });
    return incoming;
}

void IncomingFile::open() {
    const std::string base = CollisionResolver::sanitize(offer_.name);
    for (int choice = 0; choice < maxChoices && !partial_; ++choice) {
        target_ = CollisionResolver::resolveTarget(*folder_, base, {.id = transferId_, .peerKey = peerKey_});
        // Behind the look at the names: whoever moves this very file into place just now has remembered it before.
        if (acknowledgeIfDelivered()) {
            return;
        }
        partial_ = openPartial(*folder_, target_);
    }
    if (!partial_) {
        throw platform::SystemError::fromErrno(EEXIST);
    }
    bytesWritten_ = target_.resumeOffset.bytesBefore();
    writtenBack_ = target_.resumeOffset;
    try {
        writing("", [&] { partial_->seek(target_.resumeOffset); });
        writing("meta write: ", [&] { saveSidecar(); });
    } catch (const ReceiveError&) {
        abandonIfEmpty();
        throw;
    }
}

bool IncomingFile::acknowledgeIfDelivered() {
    const std::optional<DeliveredTransfers::Delivery> found = place_.delivered.find(peerKey_, transferId_, offer_.size);
    std::unique_ptr<platform::Folder> folder = found ? place_.delivered.folderOf(*found) : nullptr;
    if (!folder) {
        return false;
    }
    delivered_ = found;
    folder_ = std::move(folder);
    const platform::FileName final(found->path.filename().native());
    target_ = {final, CollisionResolver::partialOf(final), ByteOffset(found->size)};
    bytesWritten_ = found->size;
    return true;
}

const DeliveredTransfers::Delivery* IncomingFile::delivered() const noexcept {
    return delivered_ ? &*delivered_ : nullptr;
}

void IncomingFile::saveSidecar() {
    const PartialMeta meta{.transfer_id = transferId_,
                           .advertised_size = offer_.size,
                           .started_at_epoch_ms = place_.clock.epochMilliseconds(),
                           .peer_pubkey = peerKey_};
    // One that lies there is replaced for good before any data is written: if a power cut brought it back, it would
    // claim our data for its own transfer; and if it is ours, what there is to resume would be lost with it.
    const bool replaces = folder_->status(PartialMetaIO::metaName(target_.partial)).has_value();
    PartialMetaIO::save(*folder_, meta, target_.partial, replaces ? platform::Flush::now : platform::Flush::later);
    sidecarNeedsFlush_ = !replaces;
}

void IncomingFile::keepSidecar() {
    if (!sidecarNeedsFlush_) {
        return;
    }
    const std::optional<platform::FileStatus> sidecar = folder_->status(PartialMetaIO::metaName(target_.partial));
    if (!sidecar || sidecar->kind != platform::FileKind::regular) { // somebody has tidied up, or put something there
        saveSidecar();
    }
    if (sidecarNeedsFlush_) {
        PartialMetaIO::flush(*folder_, target_.partial);
    }
    sidecarNeedsFlush_ = false;
}

/// An empty partial without a sidecar would only keep its name from the next attempt.
void IncomingFile::abandonIfEmpty() noexcept {
    try {
        if (partial_->status().size == 0 && !PartialMetaIO::load(*folder_, target_.partial)) {
            folder_->remove(target_.partial);
        }
    } catch (const std::exception&) {
        // Best effort: the failed sidecar is what is reported.
    }
}

TransportMessage IncomingFile::resumeMessage() const {
    return TransportMessage::resume(offer_.transfer_id, target_.resumeOffset);
}

void IncomingFile::append(ByteView data) {
    if (delivered_) {
        if (data.empty()) {
            return;
        }
        throw ReceiveError::protocolViolation("data of a file that was delivered already");
    }
    const auto count = static_cast<std::int64_t>(data.size());
    requireRoomFor(count);
    isFlushed_ = false;
    writing("", [&] { partial_->write(data); });
    bytesWritten_ += count;
    if (share_) {
        share_->took(count);
    }
    bytesThisSession_ += count;
    const ByteOffset end(bytesWritten_);
    if (end - writtenBack_ >= writebackStep) {
        writing("meta write: ", [&] { keepSidecar(); });
        partial_->startWriteback(writtenBack_, end - writtenBack_);
        writtenBack_ = end;
    }
}

bool IncomingFile::wouldBlock(std::size_t bytes) const noexcept {
    const std::int64_t size = bytesWritten_ + static_cast<std::int64_t>(bytes);
    return !delivered_ && (ByteOffset(size) - writtenBack_ >= writebackStep || isTimeToLook(size));
}

void IncomingFile::limitTo(const DownloadLimits& limits, DownloadRoom::Share share) {
    limits_ = limits;
    share_.emplace(std::move(share));
    roomSeenAt_ = bytesWritten_;
}

/// The offer was taken because there was room for it. A sender may send more than it has offered, and others write on
/// the same disk.
void IncomingFile::requireRoomFor(std::int64_t bytes) {
    using Reason = DownloadRefusal::Reason;
    const std::int64_t size = bytesWritten_ + bytes;
    if (limits_.maxFileBytes > 0 && size > limits_.maxFileBytes) {
        throw ReceiveError::fileNotTaken(DownloadRefusal{Reason::tooLarge, limits_.maxFileBytes}.description());
    }
    if (bytes == 0 || !isTimeToLook(size)) {
        return;
    }
    const std::int64_t free = writing("", [&] { return folder_->freeBytes(); });
    if (free < limits_.keepFreeBytes || bytes > free - limits_.keepFreeBytes) {
        throw ReceiveError::fileWriteFailed(DownloadRefusal{Reason::noRoom, limits_.keepFreeBytes}.description());
    }
    roomSeenAt_ = size;
}

bool IncomingFile::isTimeToLook(std::int64_t size) const noexcept {
    return limits_.keepFreeBytes != 0 && (size > offer_.size || size - roomSeenAt_ >= writebackStep);
}

void IncomingFile::moveIntoPlace() {
    const std::string base = CollisionResolver::sanitize(offer_.name);
    if (folder_->status(target_.final)) {
        target_.final = CollisionResolver::resolveFinalURL(*folder_, base);
    }
    const platform::FileStatus content = partial_->status();
    // Remembered before it is moved: if we are killed right behind the move, the next attempt finds it.
    const auto move = [&] {
        place_.delivered.intend(peerKey_, transferId_, folder_->path() / target_.final.text(), content);
        return folder_->moveNoReplace(*partial_, target_.partial, target_.final);
    };
    for (int choice = 0; !move(); ++choice) {
        if (choice == maxChoices) {
            throw platform::SystemError::fromErrno(EEXIST);
        }
        target_.final = CollisionResolver::resolveFinalURL(*folder_, base);
    }
    setPermissions(*partial_, folder_->ordinaryPermissions()); // nobody else may open what is still a partial file
}

/// An earlier session may have been killed behind the move, before it could do this.
void IncomingFile::tidyUpBehindDelivered() {
    const std::optional<PartialMeta> meta = PartialMetaIO::load(*folder_, target_.partial);
    if (meta && meta->mayBeContinuedBy(transferId_, peerKey_) && !folder_->status(target_.partial)) {
        PartialMetaIO::remove(*folder_, target_.partial);
    }
}

void IncomingFile::leavePartialName() {
    // The file stays open, and with it locked, until it has left its partial name.
    writing("rename: ", [&] { moveIntoPlace(); });
    partial_.reset();
    // Removed before the folder is flushed: after a power cut it must not meet the next file of this name.
    PartialMetaIO::remove(*folder_, target_.partial);
}

void IncomingFile::flush() {
    if (partial_ && !isFlushed_) {
        writing("", [&] { partial_->flush(); });
        isFlushed_ = true;
    }
}

ReceivedFile IncomingFile::finish(FolderTurn turn, const std::string& remoteEndpoint) {
    {
        const FolderTurn ours(std::move(turn)); // nobody waits for the folder's flush
        if (delivered_) {
            writing("", [&] { tidyUpBehindDelivered(); });
        } else {
            flush();
            leavePartialName();
        }
    }
    writing("", [&] { folder_->flush(); });
    if (!delivered_ || !delivered_->isSettled) {
        place_.delivered.settle(peerKey_, transferId_);
    }
    return {.savedAt = folder_->path() / target_.final.text(),
            .bytesWritten = bytesWritten_,
            .advertisedSize = offer_.size,
            .mime = offer_.mime,
            .remoteEndpoint = remoteEndpoint,
            .durationSeconds = place_.clock.now() - offerTime_,
            .bytesReceivedThisSession = bytesThisSession_,
            .resumedFromOffset = target_.resumeOffset};
}

} // namespace orlinth
