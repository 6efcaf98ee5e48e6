#pragma once

#include "OrlinthCore/Receiving/ReceivingLimits.h"
#include "orlinth/Host.h"
#include "orlinth/LineLimit.h"

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace orlinth::host {

/// Notices threads that hang: a worker thread, or that of `main`, that has done one thing for limits::lateSeconds is
/// reported on standard error, once. While one has done so for half of the interval of the service manager, that does
/// not hear that the service is alive. Works on a thread of its own.
class Watchdog {
public:
    /// Seconds between two looks.
    static constexpr double lookSeconds = 0.5;

    /// `interval` is how often the service manager wants to hear from us, in seconds; `tellAlive` is called several
    /// times as often, on the watchdog's thread. Nothing: it does not want to. `host` outlives this.
    Watchdog(Host& host, std::optional<double> interval, std::function<void()> tellAlive);
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

    /// Once, on any thread.
    void start();
    /// Returns when it does nothing any more. The last call.
    [[nodiscard]] Task<> finish();

private:
    /// Whether the thread of `main` answers; shared with the question that is on its way there.
    struct MainThread {
        std::atomic<bool> isAsked = false;
    };

    void look();
    [[nodiscard]] std::vector<platform::LateQueue> lateThreads();
    [[nodiscard]] static Task<> end(Watchdog& self);

    Host& host_;
    const std::optional<double> interval_;
    const std::function<void()> tellAlive_;
    const Executor queue_; ///< all that follows is touched there
    std::unique_ptr<platform::Timer> timer_;
    LineLimit lines_;
    std::shared_ptr<MainThread> main_ = std::make_shared<MainThread>();
    platform::Clock::Instant mainAskedAt_{0};
    platform::Clock::Instant lookedAt_{0};
    std::size_t told_ = 0; ///< of the threads that are late now
    std::optional<platform::Clock::Instant> toldAliveAt_;
};

} // namespace orlinth::host
