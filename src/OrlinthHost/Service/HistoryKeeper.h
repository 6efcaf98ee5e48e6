#pragma once

#include "OrlinthHost/Chores.h"
#include "OrlinthHost/Home.h"
#include "OrlinthHost/Service/History.h"
#include "OrlinthHost/Service/TransferList.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <vector>

namespace orlinth::host {

/// The history of a running service: writes it and reads it, off the service's executor, and tells what is new in it.
///
/// Threading: everything on the home's executor.
class HistoryKeeper {
public:
    /// Entries that are kept for those who follow.
    static constexpr std::size_t maxRecent = 64;

    /// `home` outlives this.
    explicit HistoryKeeper(Home& home);
    HistoryKeeper(const HistoryKeeper&) = delete;
    HistoryKeeper& operator=(const HistoryKeeper&) = delete;

    /// This transfer has just ended, in one of the last three states.
    void ended(const TransferView& transfer);
    /// pageOf() of what counts. What ended before the call is in it. @throws platform::SystemError
    [[nodiscard]] Task<std::vector<HistoryEntry>> page(std::optional<EpochMilliseconds> before, std::size_t count);
    /// Forgets everything up to now. @throws platform::SystemError, after which it is as it was
    [[nodiscard]] Task<> clear();

    /// Counts what has been added or cleared.
    [[nodiscard]] std::uint64_t version() const noexcept { return version_; }
    /// What is new to somebody who knew it at version `seen`.
    struct News {
        std::uint64_t version = 0;
        /// Whether `added` is all of it; if not, it was cleared, or more was added than is kept: to be read anew.
        bool isWhole = true;
        std::vector<HistoryEntry> added = {}; ///< the newest last
    };
    [[nodiscard]] News since(std::uint64_t seen) const;
    /// Told when version() has grown. May be empty.
    std::function<void()> onChanged;

    /// Returns when everything is written. The last call.
    [[nodiscard]] Task<> finish() { return work_.finish(); }

private:
    void tellChanged();

    Home& home_;
    History history_; ///< on the queue of `work_`
    Chores work_;
    std::uint64_t version_ = 0;
    std::deque<HistoryEntry> recent_; ///< the last ones, as they were added up to version_
};

/// The newest `count` of those that are older than `before`, the newest first. Of entries of the same time all or none
/// come, so that the next page begins where this one ends; therefore there may be some more.
[[nodiscard]] std::vector<HistoryEntry> pageOf(std::vector<HistoryEntry> entries,
                                               std::optional<EpochMilliseconds> before, std::size_t count);

} // namespace orlinth::host
