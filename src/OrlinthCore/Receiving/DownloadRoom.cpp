#include "OrlinthCore/Receiving/DownloadRoom.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace orlinth {

std::string DownloadRefusal::description() const {
    const std::string number = std::to_string(limit);
    switch (reason) {
    case Reason::tooLarge:
        return "the file is larger than " + number + " bytes";
    case Reason::noRoom:
        return "less than " + number + " bytes would stay free on the disk";
    case Reason::tooManyPartials:
        return "the phone has " + number + " unfinished downloads";
    }
    return {};
}

struct DownloadRoom::Share::Entry {
    CollisionResolver::Transfer transfer;
    std::int64_t toCome; ///< under the ledger's lock
};

struct DownloadRoom::Share::Ledger {
    Mutex lock;
    std::list<std::shared_ptr<Entry>> entries ORLINTH_GUARDED_BY(lock);
};

DownloadRoom::Share::Share(std::shared_ptr<Ledger> ledger, std::shared_ptr<Entry> entry)
    : ledger_(std::move(ledger)), entry_(std::move(entry)) {}

DownloadRoom::Share::~Share() {
    if (ledger_) {
        const MutexLock guard(ledger_->lock);
        ledger_->entries.remove(entry_);
    }
}

void DownloadRoom::Share::took(std::int64_t bytes) {
    const MutexLock guard(ledger_->lock);
    entry_->toCome -= std::min(entry_->toCome, bytes);
}

DownloadRoom::DownloadRoom() : ledger_(std::make_shared<Share::Ledger>()) {}

std::int64_t DownloadRoom::promisedToOthers(const CollisionResolver::Transfer& transfer) const {
    const MutexLock guard(ledger_->lock);
    std::int64_t sum = 0;
    for (const auto& entry : ledger_->entries) {
        if (entry->transfer.id != transfer.id || entry->transfer.peerKey != transfer.peerKey) {
            sum += std::min(entry->toCome, std::numeric_limits<std::int64_t>::max() - sum);
        }
    }
    return sum;
}

DownloadRoom::Share DownloadRoom::promise(const CollisionResolver::Transfer& transfer, std::int64_t bytes) {
    auto entry =
        std::make_shared<Share::Entry>(Share::Entry{.transfer = transfer, .toCome = std::max(bytes, std::int64_t{0})});
    const MutexLock guard(ledger_->lock);
    ledger_->entries.push_back(entry);
    return {ledger_, std::move(entry)};
}

} // namespace orlinth
