#include "OrlinthCore/Receiving/Downloads.h"

#include "OrlinthCore/Receiving/ReceiveError.h"
#include "platform/SystemError.h"

#include <utility>

namespace orlinth {

Downloads::Downloads(platform::System& system, platform::Path folder)
    : system_(system), path_(std::move(folder)), delivered_(system), turns_(system) {}

std::unique_ptr<platform::Folder> Downloads::open() const {
    try {
        system_.files.createDirectories(path_);
        return system_.files.openFolder(path_);
    } catch (const platform::SystemError& error) {
        throw ReceiveError::fileWriteFailed(error.description());
    }
}

Task<IncomingFile> Downloads::begin(std::string phone, TransportMessage::FileOffer offer,
                                    platform::Clock::Instant offeredAt) {
    std::unique_ptr<platform::Folder> folder = open();
    const FolderTurn turn = co_await turns_.take(folder->status());
    co_return IncomingFile::begin({.system = system_, .delivered = delivered_}, std::move(folder), turn,
                                  std::move(phone), offer, offeredAt);
}

bool Downloads::isDelivered(const std::string& phone, const TransportMessage::FileOffer& offer) {
    return delivered_.find(phone, offer.transfer_id, offer.size).has_value();
}

Task<ReceivedFile> Downloads::finish(IncomingFile& file, std::string remoteEndpoint) {
    file.flush();
    FolderTurn turn = co_await turns_.take(file.folder().status());
    co_return file.finish(std::move(turn), remoteEndpoint);
}

} // namespace orlinth
