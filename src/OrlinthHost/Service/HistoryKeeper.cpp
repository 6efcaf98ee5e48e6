#include "OrlinthHost/Service/HistoryKeeper.h"

#include <utility>

namespace orlinth::host {

namespace {

HistoryEntry::Outcome outcomeOf(TransferView::State state) {
    switch (state) {
    case TransferView::State::done:
        return HistoryEntry::Outcome::done;
    case TransferView::State::cancelled:
        return HistoryEntry::Outcome::cancelled;
    case TransferView::State::active:
    case TransferView::State::finishing:
    case TransferView::State::failed:
        break;
    }
    return HistoryEntry::Outcome::failed;
}

} // namespace

HistoryKeeper::HistoryKeeper(Home& home)
    : home_(home),
      history_(home.system.files, home.system.clock, home.system.log, home.dataDirectory()),
      work_(home.system.queues, "orlinth.serve.history") {}

void HistoryKeeper::ended(const TransferView& transfer) {
    using Direction = HistoryEntry::Direction;
    HistoryEntry entry{.time = home_.system.clock.epochMilliseconds(),
                       .direction = transfer.direction == TransferView::Direction::in ? Direction::in : Direction::out,
                       .phone = transfer.phone,
                       .peerKey = transfer.peerKey,
                       .file = transfer.name,
                       .size = transfer.bytes.total,
                       .outcome = outcomeOf(transfer.state),
                       .problem = transfer.problem,
                       .path = transfer.path.string()};
    work_.add([this, entry = std::move(entry)] { history_.add(entry); });
}

} // namespace orlinth::host
