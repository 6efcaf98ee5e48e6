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

/// Runs a step on the disk; a failure becomes fileWriteFailed with the system's words behind `what`.
template <typename Step>
auto writing(const std::string& what, Step step) {
    try {
        return step();
    } catch (const platform::SystemError& error) {
        throw ReceiveError::fileWriteFailed(what + error.description());
    }
}

/// Keeps other receivers away from the folder while one chooses its names. It is the folder itself that is locked: no
/// file of ours has to lie among the user's, and it works between processes as well as within one.
std::unique_ptr<platform::File> lockFolder(platform::FileSystem& files, const platform::Path& folder) {
    std::unique_ptr<platform::File> lock = files.open(folder, platform::OpenMode::read);
    try {
        lock->lock();
    } catch (const platform::SystemError& error) {
        // Some network file systems cannot lock a folder. O_EXCL still keeps two receivers from one fresh partial.
        const std::error_code code = error.code();
        if (code != std::errc::no_lock_available && code != std::errc::bad_file_descriptor &&
            code != std::errc::operation_not_supported && code != std::errc::function_not_supported) {
            throw;
        }
    }
    return lock;
}

/// Opens the target's partial file, locked, or nothing if the folder changed since the target was chosen.
std::unique_ptr<platform::File> openPartial(platform::FileSystem& files, CollisionResolver::Target& target) {
    const bool isNew = !files.exists(target.partial);
    std::unique_ptr<platform::File> file;
    try {
        file = files.open(target.partial, isNew ? platform::OpenMode::createNew : platform::OpenMode::write,
                          platform::Links::refuse);
    } catch (const platform::SystemError& error) {
        if (error.code() == (isNew ? std::errc::file_exists : std::errc::no_such_file_or_directory)) {
            return nullptr;
        }
        throw;
    }
    if (!file->tryLock()) {
        throw ReceiveError::fileWriteFailed("another receiver is writing " + target.partial.filename().native());
    }
    // Until the lock was ours, its holder may have added to the file, or finished it and moved it away.
    const platform::FileStatus opened = file->status();
    const std::optional<platform::FileStatus> named = files.status(target.partial);
    if (!named || named->inode != opened.inode || named->device != opened.device) {
        return nullptr;
    }
    if (target.resumeOffset > 0) {
        target.resumeOffset = opened.size;
    }
    return file;
}

/// A file of another size than was offered is not the one that is meant, whatever its id says.
std::optional<DeliveredTransfers::Delivery> findDelivered(DeliveredTransfers& delivered, const std::string& phone,
                                                          const TransportMessage::FileOffer& offer) {
    std::optional<DeliveredTransfers::Delivery> found = delivered.find(phone, offer.transfer_id);
    return found && found->size == offer.size ? found : std::nullopt;
}

} // namespace

IncomingFile::IncomingFile(const Place& place, std::string phone, TransportMessage::FileOffer offer,
                           platform::Clock::Instant offeredAt)
    : system_(&place.system),
      deliveredTransfers_(&place.delivered),
      downloadsDir_(place.downloadsDir),
      phone_(std::move(phone)),
      offer_(std::move(offer)),
      offerTime_(offeredAt) {}

IncomingFile::IncomingFile(IncomingFile&&) noexcept = default;

IncomingFile::~IncomingFile() {
    if (partial_) {
        try {
            partial_->flush();
            keepSidecar();
        } catch (const std::exception&) {
            // Whatever ended the transfer is being reported; a resume starts from what the disk has kept.
        }
    }
}

IncomingFile IncomingFile::begin(const Place& place, std::string phone, const TransportMessage::FileOffer& offer,
                                 platform::Clock::Instant offeredAt) {
    IncomingFile incoming(place, std::move(phone), offer, offeredAt);
    writing("", [&] { incoming.open(); });
    return incoming;
}

void IncomingFile::open() {
    platform::FileSystem& files = system_->files;
    const std::unique_ptr<platform::File> folder = lockFolder(files, downloadsDir_);
    const std::string base = CollisionResolver::sanitize(offer_.name);
    for (int choice = 0; choice < maxChoices && !partial_; ++choice) {
        target_ = CollisionResolver::resolveTarget(files, downloadsDir_, base, offer_.transfer_id);
        // Behind the look at the names: whoever moves this very file into place just now has remembered it before.
        if (acknowledgeIfDelivered()) {
            return;
        }
        partial_ = openPartial(files, target_);
    }
    if (!partial_) {
        throw platform::SystemError::fromErrno(EEXIST);
    }
    bytesWritten_ = target_.resumeOffset;
    writtenBack_ = target_.resumeOffset;
    try {
        writing("", [&] { partial_->seek(target_.resumeOffset); });
        writing("meta write: ", [&] { saveSidecar(); });
    } catch (const ReceiveError&) {
        abandonIfEmpty();
        throw;
    }
}

bool IncomingFile::isDelivered(const Place& place, const std::string& phone, const TransportMessage::FileOffer& offer) {
    return findDelivered(place.delivered, phone, offer).has_value();
}

bool IncomingFile::acknowledgeIfDelivered() {
    delivered_ = findDelivered(*deliveredTransfers_, phone_, offer_);
    if (!delivered_) {
        return false;
    }
    target_ = {.final = delivered_->path,
               .partial = platform::Path(delivered_->path) += CollisionResolver::partialSuffix,
               .resumeOffset = delivered_->size};
    bytesWritten_ = delivered_->size;
    return true;
}

const DeliveredTransfers::Delivery* IncomingFile::delivered() const noexcept {
    return delivered_ ? &*delivered_ : nullptr;
}

void IncomingFile::saveSidecar() {
    platform::FileSystem& files = system_->files;
    const PartialMeta meta{.transfer_id = offer_.transfer_id,
                           .advertised_size = offer_.size,
                           .started_at_epoch_ms = system_->clock.epochMilliseconds()};
    // One that lies there is replaced for good before any data is written: if a power cut brought it back, it would
    // claim our data for its own transfer; and if it is ours, what there is to resume would be lost with it.
    const bool replaces = files.exists(PartialMetaIO::metaURL(target_.partial));
    PartialMetaIO::save(files, meta, target_.partial, replaces ? platform::Flush::now : platform::Flush::later);
    sidecarNeedsFlush_ = !replaces;
}

void IncomingFile::keepSidecar() {
    if (!sidecarNeedsFlush_) {
        return;
    }
    if (system_->files.exists(PartialMetaIO::metaURL(target_.partial))) {
        PartialMetaIO::flush(system_->files, target_.partial);
    } else { // somebody has tidied up
        saveSidecar();
        PartialMetaIO::flush(system_->files, target_.partial);
    }
    sidecarNeedsFlush_ = false;
}

/// An empty partial without a sidecar would only keep its name from the next attempt.
void IncomingFile::abandonIfEmpty() noexcept {
    try {
        if (partial_->status().size == 0 && !PartialMetaIO::load(system_->files, target_.partial)) {
            system_->files.remove(target_.partial);
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
    writing("", [&] { partial_->write(data); });
    const auto count = static_cast<std::int64_t>(data.size());
    bytesWritten_ += count;
    bytesThisSession_ += count;
    if (bytesWritten_ - writtenBack_ >= writebackStep) {
        writing("meta write: ", [&] { keepSidecar(); });
        partial_->startWriteback(writtenBack_, bytesWritten_ - writtenBack_);
        writtenBack_ = bytesWritten_;
    }
}

void IncomingFile::moveIntoPlace() {
    platform::FileSystem& files = system_->files;
    const std::string base = CollisionResolver::sanitize(offer_.name);
    if (files.exists(target_.final)) {
        target_.final = CollisionResolver::resolveFinalURL(files, downloadsDir_, base);
    }
    const platform::FileStatus content = partial_->status();
    // Remembered before it is moved: if we are killed right behind the move, the next attempt finds it.
    const auto move = [&] {
        deliveredTransfers_->intend(phone_, offer_.transfer_id, target_.final, content);
        return files.renameNoReplace(target_.partial, target_.final);
    };
    for (int choice = 0; !move(); ++choice) {
        if (choice == maxChoices) {
            throw platform::SystemError::fromErrno(EEXIST);
        }
        target_.final = CollisionResolver::resolveFinalURL(files, downloadsDir_, base);
    }
}

/// An earlier session may have been killed behind the move, before it could do this.
void IncomingFile::tidyUpBehindDelivered() {
    platform::FileSystem& files = system_->files;
    const std::optional<PartialMeta> meta = PartialMetaIO::load(files, target_.partial);
    if (meta && meta->transfer_id == offer_.transfer_id && !files.exists(target_.partial)) {
        PartialMetaIO::remove(files, target_.partial);
    }
    writing("", [&] { files.flushDirectory(target_.final.parent_path()); });
}

/// One step against receivers that choose their names: else one could take the partial's name between the move and the
/// end of the sidecar, or miss both the partial and the file.
void IncomingFile::leavePartialName() {
    platform::FileSystem& files = system_->files;
    const std::unique_ptr<platform::File> folder = writing("", [&] { return lockFolder(files, downloadsDir_); });
    // The file stays open, and with it locked, until it has left its partial name.
    writing("rename: ", [&] { moveIntoPlace(); });
    partial_.reset();
    // Removed before the folder is flushed: after a power cut it must not meet the next file of this name.
    PartialMetaIO::remove(files, target_.partial);
}

ReceivedFile IncomingFile::finish(const std::string& remoteEndpoint) {
    platform::FileSystem& files = system_->files;
    if (delivered_) {
        tidyUpBehindDelivered();
    } else {
        writing("", [&] { partial_->flush(); });
        leavePartialName();
        writing("", [&] { files.flushDirectory(downloadsDir_); });
    }
    if (!delivered_ || !delivered_->isSettled) {
        deliveredTransfers_->settle(phone_, offer_.transfer_id);
    }
    return {.savedAt = target_.final,
            .bytesWritten = bytesWritten_,
            .advertisedSize = offer_.size,
            .mime = offer_.mime,
            .remoteEndpoint = remoteEndpoint,
            .durationSeconds = (system_->clock.now() - offerTime_).count(),
            .bytesReceivedThisSession = bytesThisSession_,
            .resumedFromOffset = target_.resumeOffset};
}

} // namespace orlinth
