#pragma once

#include "OrlinthHost/Chores.h"
#include "OrlinthHost/Home.h"
#include "OrlinthHost/Service/History.h"
#include "OrlinthHost/Service/TransferList.h"

namespace orlinth::host {

/// Writes the history of a running service, off its executor.
///
/// Threading: everything on the home's executor.
class HistoryKeeper {
public:
    /// `home` outlives this.
    explicit HistoryKeeper(Home& home);
    HistoryKeeper(const HistoryKeeper&) = delete;
    HistoryKeeper& operator=(const HistoryKeeper&) = delete;

    /// This transfer has just ended, in one of the last three states.
    void ended(const TransferView& transfer);
    /// Returns when everything is written. The last call.
    [[nodiscard]] Task<> finish() { return work_.finish(); }

private:
    Home& home_;
    History history_; ///< on the queue of `work_`
    Chores work_;
};

} // namespace orlinth::host
