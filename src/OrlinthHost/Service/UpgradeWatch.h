#pragma once

#include "OrlinthHost/Home.h"
#include "OrlinthHost/Service/ServiceApi.h"
#include "platform/Event.h"
#include "platform/FileSystem.h"
#include "platform/TaskGroup.h"

#include <optional>

namespace orlinth::host {

/// Notices that the service's program was replaced on the disk, as an upgrade does it, and has the service start anew
/// once it has nothing to do:
///
///     looking ──another file has the program's name──▶ waiting ──nothing under way for a minute──▶ restart
///        ▲ └──▶ again after an hour, or when a client of another version asks
///        └─────────────── it is the same file again, or there is none ◀──┘
///
/// A program that is only gone is not replaced: nobody could start it.
///
/// Threading: everything on the home's executor; files are looked at where nobody waits for them.
class UpgradeWatch {
public:
    static constexpr Seconds lookInterval = 1h;
    static constexpr Seconds idleTime = 60s;

    /// `program` is the file that runs, which is looked at when the watch starts. What is referred to outlives this.
    UpgradeWatch(Home& home, ServiceApi& api, std::optional<platform::Path> program);
    UpgradeWatch(const UpgradeWatch&) = delete;
    UpgradeWatch& operator=(const UpgradeWatch&) = delete;

    /// Once. Nothing if there is no program, or nobody who would start the service again.
    void start();
    /// A client of another version has asked: looks now.
    void lookNow() { isAsked_.set(); }
    /// Ends what start() has begun. The last call; start() need not have been called.
    [[nodiscard]] Task<> finish();

private:
    using Look = std::optional<platform::FileStatus>;

    [[nodiscard]] Task<> run();
    /// Nothing if there is no such file, or it cannot be looked at.
    [[nodiscard]] Task<Look> look();
    [[nodiscard]] Task<bool> wasReplaced(const platform::FileStatus& own);
    [[nodiscard]] Task<> untilIdle();

    Home& home_;
    ServiceApi& api_;
    const platform::Path program_; ///< "" if it is not known
    platform::Event isAsked_;
    platform::TaskGroup tasks_; ///< run(), if it runs
};

} // namespace orlinth::host
