#pragma once

#include "OrlinthHost/Chores.h"
#include "OrlinthHost/Home.h"
#include "platform/FileSystem.h"

#include <optional>

namespace orlinth::host {

/// Brings the share sheet's list of phones in step with the peer store. To be called after every change of the store.
/// Failures are ignored, as the list is a convenience and the next change writes it anew.
void updateSharedPeers(const Home& home) noexcept;

/// The same for whoever is told often that the store may have changed: off the home's executor, and only if it has.
///
/// Threading: called on the home's executor; works on a thread of its own.
class SharedPeersUpdates {
public:
    /// `home` outlives this.
    explicit SharedPeersUpdates(const Home& home) : home_(home), work_(home.system.queues, "orlinth.serve.sharing") {}
    SharedPeersUpdates(const SharedPeersUpdates&) = delete;
    SharedPeersUpdates& operator=(const SharedPeersUpdates&) = delete;

    void update();
    /// Returns when the last update() is done. The last call.
    [[nodiscard]] Task<> finish();

private:
    const Home& home_;
    Chores work_;
    std::optional<platform::FileStatus> written_; ///< the peer store's file then; on the queue of `work_`
};

} // namespace orlinth::host
