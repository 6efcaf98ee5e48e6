#pragma once

#include "OrlinthHost/Chores.h"
#include "OrlinthHost/Home.h"
#include "platform/FileSystem.h"

#include <memory>
#include <optional>

namespace orlinth::host {

/// Brings the share sheet's list of phones in step with the peer store, and with when the phones were last met. The
/// default phone (PeerSelection) comes first, the others in the order of the store. To be called after every change of
/// the store. Failures are ignored, as the list is a convenience and the next change writes it anew.
void updateSharedPeers(const Home& home) noexcept;

/// The same for whoever is told often that something may have changed: off the home's executor, and only if it has. If
/// the store or the last phone (LastPhone) has changed, the list is written at once. If phones were only met again, it
/// is written no sooner than a minute after it was last written.
///
/// Threading: called on the home's executor; works on a thread of its own.
class SharedPeersUpdates {
public:
    static constexpr Seconds meetingsInterval = 60s;

    /// `home` outlives this.
    explicit SharedPeersUpdates(const Home& home);
    SharedPeersUpdates(const SharedPeersUpdates&) = delete;
    SharedPeersUpdates& operator=(const SharedPeersUpdates&) = delete;

    void update();
    /// Returns when the last update() is done; one that had to wait for its minute is not. The last call.
    [[nodiscard]] Task<> finish();

private:
    using Status = std::optional<platform::FileStatus>;

    void look();
    void updateIn(Seconds time);

    const Home& home_;
    std::unique_ptr<platform::Timer> timer_; ///< on the home's executor, like the next
    bool isStopping_ = false;
    Chores work_;
    Status store_;    ///< the peer store's file when the list was written; on the queue of `work_`, like those below
    Status meetings_; ///< that of AddressMemory
    Status last_;     ///< that of LastPhone
    platform::Clock::Instant writtenAt_{};
};

} // namespace orlinth::host
