#include "OrlinthCore/Receiving/Downloads.h"

#include "OrlinthCore/Receiving/Partials.h"
#include "OrlinthCore/Receiving/ReceiveError.h"
#include "platform/Blocking.h"
#include "platform/SystemError.h"

#include <algorithm>
#include <utility>

namespace orlinth {
namespace {

/// How long a phone with too many partial files is believed to have them still; else each of its offers would
/// have all of them read.
constexpr Seconds censusLife = 10s;

/// Folders whose partial files are counted; a person has a few.
constexpr std::size_t maxCensuses = 32;

/// Bytes that the offer promises beyond those that are here.
std::int64_t toCome(const TransportMessage::FileOffer& offer, std::int64_t here) {
    return std::max(offer.size, std::int64_t{0}) - here;
}

} // namespace

Downloads::Downloads(platform::Storage storage, platform::WorkQueues& queues, platform::Path folder)
    : storage_(std::move(storage)),
      queues_(queues),
      usual_{std::move(folder)},
      delivered_(storage_),
      turns_(storage_) {}

std::unique_ptr<platform::Folder> Downloads::open(const platform::Path& path) const {
    try {
        return storage_.files.openFolder(path);
    } catch (const platform::SystemError&) {
        // it may not be there yet; what else it is comes up again
    }
    try {
        storage_.files.createDirectories(path);
        return storage_.files.openFolder(path);
    } catch (const platform::SystemError& error) {
        throw ReceiveError::fileWriteFailed(error.description());
    }
}

bool Downloads::isDelivered(const PeerKey& peerKey, const TransportMessage::FileOffer& offer) {
    return delivered_.find(peerKey, TransferId(offer.transfer_id), offer.size).has_value();
}

// ---- refusals

void Downloads::requireSensible(const TransportMessage::FileOffer& offer) {
    if (offer.transfer_id.size() > TransportMessage::maxTransferIdBytes) {
        throw ReceiveError::protocolViolation("transfer id of " + std::to_string(offer.transfer_id.size()) +
                                              " bytes, more than " +
                                              std::to_string(TransportMessage::maxTransferIdBytes));
    }
}

Task<Downloads::Prospect> Downloads::prospectOf(PeerKey peerKey, TransportMessage::FileOffer offer,
                                                std::optional<DownloadPlace> place) {
    requireSensible(offer);
    return platform::blocking(queues_, [this, peerKey = std::move(peerKey), offer = std::move(offer),
                                        place = std::move(place).value_or(usual_)] {
        const bool isHere = isDelivered(peerKey, offer);
        return Prospect{.isDelivered = isHere, .refusal = isHere ? std::nullopt : refusalOf(peerKey, offer, place)};
    });
}

std::optional<DownloadRefusal> Downloads::refusalOf(const PeerKey& peerKey, const TransportMessage::FileOffer& offer,
                                                    const DownloadPlace& place) {
    std::unique_ptr<platform::Folder> folder;
    try {
        folder = storage_.files.openFolder(place.folder);
    } catch (const platform::SystemError&) {
        return std::nullopt; // begin() makes it, or says why that cannot be done
    }
    return refusalIn(*folder, place.limits, {.id = TransferId(offer.transfer_id), .peerKey = peerKey}, offer);
}

std::optional<DownloadRefusal> Downloads::refusalIn(platform::Folder& folder, const DownloadLimits& limits,
                                                    const CollisionResolver::Transfer& transfer,
                                                    const TransportMessage::FileOffer& offer) {
    using Reason = DownloadRefusal::Reason;
    if (limits.maxFileBytes > 0 && offer.size > limits.maxFileBytes) {
        return DownloadRefusal{Reason::tooLarge, limits.maxFileBytes};
    }
    // What would be continued is looked for only if it makes a difference.
    std::optional<CollisionResolver::Target> target;
    const auto continued = [&]() -> const CollisionResolver::Target& {
        if (!target) {
            target = CollisionResolver::resolveTarget(folder, CollisionResolver::sanitize(offer.name), transfer);
        }
        return *target;
    };
    try {
        if (limits.keepFreeBytes > 0) {
            const std::int64_t free = folder.freeBytes();
            const std::int64_t others = roomOn(folder).promisedToOthers(transfer);
            const std::int64_t room = others > free ? 0 : free - others;
            const auto fits = [&](std::int64_t bytes) {
                return bytes <= 0 || (room >= limits.keepFreeBytes && bytes <= room - limits.keepFreeBytes);
            };
            if (!fits(offer.size) && !fits(toCome(offer, continued().resumeOffset.bytesBefore()))) {
                return DownloadRefusal{Reason::noRoom, limits.keepFreeBytes};
            }
        }
        if (hasTooManyPartials(folder, transfer.peerKey) && !continued().isContinued) {
            return DownloadRefusal{Reason::tooManyPartials, static_cast<std::int64_t>(DownloadLimits::maxPartials)};
        }
    } catch (const platform::SystemError& error) {
        throw ReceiveError::fileWriteFailed(error.description());
    }
    return std::nullopt;
}

bool Downloads::hasTooManyPartials(platform::Folder& folder, const PeerKey& peerKey) {
    const MutexLock guard(lock_);
    const auto known = censuses_.find(idOf(folder));
    const Census* census = known != censuses_.end() ? &known->second : &takeCensus(folder);
    const auto isTooMany = [&peerKey](const Census& counted) {
        const auto found = counted.partials.find(peerKey);
        return found != counted.partials.end() && found->second >= DownloadLimits::maxPartials;
    };
    if (isTooMany(*census) && storage_.clock.now() - census->takenAt >= censusLife) {
        census = &takeCensus(folder); // somebody may have removed some
    }
    return isTooMany(*census);
}

Downloads::Census& Downloads::takeCensus(platform::Folder& folder) {
    const FolderId id = idOf(folder);
    if (censuses_.size() >= maxCensuses && !censuses_.contains(id)) {
        censuses_.clear();
    }
    Census& census = censuses_[id];
    census = {.takenAt = storage_.clock.now(), .partials = {}};
    try {
        for (const PartialDownload& download : Partials::in(folder)) {
            ++census.partials[download.meta.peer_pubkey];
        }
    } catch (const platform::SystemError&) {
        // A folder that may be written but not read: what is counted from here on has to do.
    }
    return census;
}

void Downloads::countPartial(const platform::Folder& folder, const PeerKey& peerKey, bool isNew) {
    const MutexLock guard(lock_);
    const auto census = censuses_.find(idOf(folder));
    if (census == censuses_.end()) {
        return;
    }
    std::size_t& count = census->second.partials[peerKey];
    if (isNew) {
        ++count;
    } else if (count > 0) {
        --count;
    }
}

Downloads::FolderId Downloads::idOf(const platform::Folder& folder) {
    const platform::FileStatus status = folder.status();
    return {status.device, status.inode};
}

DownloadRoom Downloads::roomOn(const platform::Folder& folder) {
    const MutexLock guard(lock_);
    return rooms_[idOf(folder).first];
}

// ---- files

Task<IncomingFile> Downloads::begin(PeerKey peerKey, TransportMessage::FileOffer offer,
                                    platform::Clock::Instant offeredAt) {
    Beginning beginning = co_await beginUnlessRefused(std::move(peerKey), std::move(offer), offeredAt);
    if (beginning.refusal) {
        throw ReceiveError::fileWriteFailed(beginning.refusal->description());
    }
    co_return std::move(*beginning.file);
}

Task<Downloads::Beginning> Downloads::beginUnlessRefused(PeerKey peerKey, TransportMessage::FileOffer offer,
                                                         platform::Clock::Instant offeredAt,
                                                         std::optional<DownloadPlace> place) {
    requireSensible(offer);
    Task<Beginning> beginning =
        beginHere(std::move(peerKey), std::move(offer), offeredAt, std::move(place).value_or(usual_));
    return platform::runOn(queues_.makeBlockingQueue(), std::move(beginning));
}

/// On a queue that may block, and so finishHere().
Task<Downloads::Beginning> Downloads::beginHere(PeerKey peerKey, TransportMessage::FileOffer offer,
                                                platform::Clock::Instant offeredAt, DownloadPlace place) {
    std::unique_ptr<platform::Folder> folder = open(place.folder);
    const CollisionResolver::Transfer transfer{.id = TransferId(offer.transfer_id), .peerKey = peerKey};
    const std::optional<DownloadRefusal> refusal = refusalIn(*folder, place.limits, transfer, offer);
    if (refusal && !isDelivered(peerKey, offer)) {
        co_return Beginning{.file = std::nullopt, .refusal = refusal};
    }
    const FolderTurn turn = co_await turns_.take(folder->status());
    IncomingFile file = IncomingFile::begin({.clock = storage_.clock, .delivered = delivered_}, std::move(folder), turn,
                                            std::move(peerKey), offer, offeredAt);
    const std::int64_t most = place.limits.maxFileBytes;
    if (file.delivered() == nullptr && most > 0 && file.bytesWritten() > most) { // of a larger offer, or limit
        co_return Beginning{.file = std::nullopt, .refusal = DownloadRefusal{DownloadRefusal::Reason::tooLarge, most}};
    }
    if (file.delivered() == nullptr) {
        file.limitTo({.keepFreeBytes = place.limits.keepFreeBytes, .maxFileBytes = place.limits.maxFileBytes},
                     roomOn(file.folder()).promise(transfer, toCome(offer, file.bytesWritten())));
        if (!file.isContinued()) {
            countPartial(file.folder(), transfer.peerKey, true);
        }
    }
    co_return Beginning{.file = std::move(file), .refusal = std::nullopt};
}

Task<> Downloads::append(IncomingFile& file, ByteView data) {
    if (!file.wouldBlock(data.size())) {
        file.append(data);
        co_return;
    }
    co_await platform::blocking(queues_, [&file, data] { file.append(data); });
}

Task<> Downloads::close(IncomingFile& file) {
    return platform::blocking(queues_, [&file] { file.close(); });
}

/// Somebody may have put the folder into the trash and made another one: a file that comes into the old one is as good
/// as lost, and whoever looks for it by its path finds another file or none.
void Downloads::requireInPlace(const platform::Folder& folder) const {
    try {
        const std::optional<platform::FileStatus> there = storage_.files.status(folder.path());
        if (there && platform::isSameFile(*there, folder.status())) {
            return;
        }
    } catch (const platform::SystemError& error) {
        throw ReceiveError::fileWriteFailed(error.description());
    }
    throw ReceiveError::fileWriteFailed("the downloads folder was moved or replaced");
}

Task<ReceivedFile> Downloads::finish(IncomingFile& file, std::string remoteEndpoint) {
    Task<std::optional<ReceivedFile>> finishing = finishHere(file, std::move(remoteEndpoint));
    std::optional<ReceivedFile> received = co_await platform::runOn(queues_.makeBlockingQueue(), std::move(finishing));
    co_return std::move(*received);
}

Task<std::optional<ReceivedFile>> Downloads::finishHere(IncomingFile& file, std::string remoteEndpoint) {
    file.flush();
    FolderTurn turn = co_await turns_.take(file.folder().status());
    requireInPlace(file.folder());
    ReceivedFile received = file.finish(std::move(turn), remoteEndpoint);
    if (file.delivered() == nullptr) {
        countPartial(file.folder(), file.peerKey(), false);
    }
    co_return received;
}

} // namespace orlinth
