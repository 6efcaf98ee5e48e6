#pragma once

#include "OrlinthCore/Receiving/ReceivingLimits.h"
#include "OrlinthHost/Home.h"
#include "OrlinthHost/LineLimit.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <vector>

namespace orlinth::host {

/// Notices threads that hang: a worker thread, or that of `main`, that has done one thing for limits::lateAfter is
/// reported, once. While one has done so for half of the interval of the service manager, that does not hear that the
/// service is alive. Works on a thread of its own.
///
///                  stir(): something is going on
///     resting ───────────────────────────────────▶ watching ──┐ a look each lookInterval
///        ▲ └─┐ a look each restInterval             │  ▲──────┘
///        │   └─ a thread has not answered ─────────▶│
///        └──── restAfter without stir(), and every thread has answered
///
/// Each look wakes every thread that it asks, so a service with nothing to do is looked at seldom: a thread that begins
/// to hang then is reported at the second look from there, if it has not recovered by then.
class Watchdog {
public:
    /// Between two looks while something is going on.
    static constexpr Seconds lookInterval = 500ms;
    /// The same while nothing is; less if the service manager wants to hear from us more often.
    static constexpr Seconds restInterval = 60s;
    /// How long nothing has gone on when it rests.
    static constexpr Seconds restAfter = 20s;

    /// Whom it calls, on its own thread: that of `main` may be the one that hangs.
    struct Callbacks {
        std::function<void(const platform::LateQueue& thread)> onLate;
        /// So many more were late that onLate was not called for, a few a minute being enough.
        std::function<void(std::int64_t count)> onMoreLate;
        std::function<void()> onAlive;
    };

    /// `interval` is how often the service manager wants to hear from us; onAlive is called several times
    /// as often. Nothing: it does not want to. `home` outlives this.
    Watchdog(Home& home, std::optional<Seconds> interval, Callbacks callbacks);
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

    /// Once, on any thread.
    void start();
    /// Something is going on: it looks more often for a while. Cheap, on any thread; before start() and behind finish()
    /// it does nothing. Whoever calls it on another thread than the home's executor has ended when finish() is called.
    void stir() noexcept;
    /// Returns when it does nothing any more. The last call.
    [[nodiscard]] Task<> finish();

private:
    /// Whether the thread of `main` answers; shared with the question that is on its way there.
    struct MainThread {
        std::atomic<bool> isAsked = false;
    };

    void look();
    void lookAgain(platform::Clock::Instant now, bool isLate);
    [[nodiscard]] std::vector<platform::LateQueue> lateThreads();
    [[nodiscard]] static Task<> end(Watchdog& self);

    Home& home_;
    const std::optional<Seconds> interval_;
    const Callbacks callbacks_;
    std::atomic<bool> isStirred_ = false; ///< since the last look
    std::atomic<bool> isResting_ = false; ///< and nobody has stirred it
    std::atomic<bool> isAtWork_ = false;  ///< between start() and finish()
    const Executor queue_;                ///< all that follows is touched there
    std::unique_ptr<platform::Timer> timer_;
    std::optional<LineLimit> lines_; ///< until the end
    std::shared_ptr<MainThread> main_ = std::make_shared<MainThread>();
    platform::Clock::Instant mainAskedAt_{};
    platform::Clock::Instant lookedAt_{};
    platform::Clock::Instant lookIsDue_{};
    platform::Clock::Instant stirredAt_{}; ///< at the last look that found it so
    std::set<std::size_t> told_;           ///< the threads that were late at the last look; `main` is 0
    std::optional<platform::Clock::Instant> toldAliveAt_;
};

} // namespace orlinth::host
