#include "OrlinthHost/Service/HistoryKeeper.h"

#include "platform/Spawn.h"

#include <algorithm>
#include <functional>
#include <numeric>
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

/// In an optional, because what Asio carries between queues must have a default. `history` outlives the task.
Task<std::optional<std::vector<HistoryEntry>>> load(const History& history) {
    co_return history.load();
}

Task<> clearAll(History& history) {
    history.clear();
    co_return;
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
    work_.add([this, entry] { history_.add(entry); });
    recent_.push_back(std::move(entry));
    if (recent_.size() > maxRecent) {
        recent_.pop_front();
    }
    tellChanged();
}

void HistoryKeeper::tellChanged() {
    ++version_;
    if (onChanged) {
        onChanged();
    }
}

Task<std::vector<HistoryEntry>> HistoryKeeper::page(std::optional<EpochMilliseconds> before, std::size_t count) {
    std::optional<std::vector<HistoryEntry>> entries = co_await platform::runOn(work_.queue(), load(history_));
    co_return pageOf(std::move(*entries), before, count);
}

Task<> HistoryKeeper::clear() {
    co_await platform::runOn(work_.queue(), clearAll(history_));
    recent_.clear();
    tellChanged();
}

HistoryKeeper::News HistoryKeeper::since(std::uint64_t seen) const {
    const std::uint64_t added = version_ - std::min(seen, version_);
    News news{.version = version_, .isWhole = added <= recent_.size()};
    if (news.isWhole) {
        news.added.assign(recent_.end() - static_cast<std::ptrdiff_t>(added), recent_.end());
    }
    return news;
}

std::vector<HistoryEntry> pageOf(std::vector<HistoryEntry> entries, std::optional<EpochMilliseconds> before,
                                 std::size_t count) {
    std::erase_if(entries, [&before](const HistoryEntry& entry) { return before && entry.time >= *before; });
    std::vector<std::size_t> order(entries.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::ranges::sort(order, std::greater(), [&entries](std::size_t at) { // of the same time, what was written last
        return std::pair(entries[at].time, at);
    });
    std::vector<HistoryEntry> page;
    for (const std::size_t at : order) {
        if (page.size() >= count && entries[at].time != page.back().time) {
            break;
        }
        page.push_back(std::move(entries[at]));
    }
    return page;
}

} // namespace orlinth::host
