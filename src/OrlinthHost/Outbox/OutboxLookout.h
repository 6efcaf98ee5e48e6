#pragma once

#include "OrlinthHost/Home.h"

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

namespace orlinth::host {

/// Says when it is time to look through the outbox: when the share sheet rings, when something changes in the folder or
/// in one of the batches that are not complete yet, and once a minute whatever happens. Several reasons close together
/// make one look.
///
/// The bell and the watches may each be missing or miss something; with the others, and at the latest with the next
/// minute, a batch is found all the same. Where a folder cannot be watched, it is looked at every second.
///
/// Threading: everything on the home's executor.
class OutboxLookout {
public:
    /// Between two looks that nothing gave reason for.
    static constexpr Seconds backstopInterval = 60s;
    /// The same where a watch is missing.
    static constexpr Seconds unwatchedInterval = 1s;
    /// From a reason to the look: files that come together are looked at together.
    static constexpr Seconds gatherDelay = 50ms;

    /// `onLook` is called on the home's executor, never from within a call of this. `home` outlives this.
    OutboxLookout(Home& home, std::function<void()> onLook);
    OutboxLookout(const OutboxLookout&) = delete;
    OutboxLookout& operator=(const OutboxLookout&) = delete;

    /// Once. The first look comes soon after.
    void start();
    /// What to watch from now on, at each look: the outbox, if there is one, and the folders that are to become
    /// batches. To be called before these are looked at, so that nothing falls in between.
    void watch(const std::optional<platform::Path>& outbox, const std::set<platform::Path>& incomplete);
    /// There is reason to look. Nothing before start() and after stop().
    void lookSoon();
    /// Nothing is called any more.
    void stop() noexcept;

private:
    struct Watched {
        std::unique_ptr<platform::FolderWatch> watch; ///< null if it cannot be watched
        std::optional<platform::FileStatus> folder;   ///< then: another one may come by its name
    };

    void look();
    [[nodiscard]] bool isUnwatched() const;
    [[nodiscard]] Watched begin(const platform::Path& folder);
    [[nodiscard]] std::optional<platform::FileStatus> statusOf(const platform::Path& folder) const;
    [[nodiscard]] bool isOutdated(const platform::Path& folder, const Watched& watched) const;

    Home& home_;
    std::function<void()> onLook_;
    std::shared_ptr<OutboxLookout*> self_; ///< what is still posted when this has gone finds nothing here
    std::unique_ptr<platform::Timer> gather_;
    std::unique_ptr<platform::Timer> backstop_;
    bool isGathering_ = false;
    std::unique_ptr<platform::SignalSubscription> bell_;
    std::map<platform::Path, Watched> watched_;
};

} // namespace orlinth::host
