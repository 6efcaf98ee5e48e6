#include "OrlinthHost/Service/Watchdog.h"

#include "platform/Spawn.h"

#include <asio/post.hpp>

#include <algorithm>
#include <utility>

namespace orlinth::host {

Watchdog::Watchdog(Home& home, std::optional<Seconds> interval, Callbacks callbacks)
    : home_(home),
      interval_(interval),
      callbacks_(std::move(callbacks)),
      queue_(home.system.queues.makeThreadQueue("orlinth.serve.watchdog")),
      timer_(home.system.clock.makeTimer(queue_)),
      lines_(std::in_place, home.system.clock, queue_, limits::linesOfStrangers, callbacks_.onMoreLate) {}

void Watchdog::start() {
    asio::post(queue_, [this] { look(); }); // finish() comes behind it
}

Task<> Watchdog::finish() {
    return platform::runOn(queue_, end(*this));
}

Task<> Watchdog::end(Watchdog& self) {
    self.lines_->finish();
    self.lines_.reset(); // both timers here, as a wait that was just cancelled may still be on its way
    self.timer_.reset();
    co_return;
}

void Watchdog::look() {
    const platform::Clock::Instant now = home_.system.clock.now();
    const bool wasAway = now - lookedAt_ > limits::lateAfter; // the whole process was stopped: who was not?
    lookedAt_ = now;
    std::vector<platform::LateQueue> late = lateThreads();
    if (wasAway) {
        late.clear();
    }
    std::set<std::size_t> lateNow;
    for (const platform::LateQueue& queue : late) {
        lateNow.insert(queue.thread);
        if (!told_.contains(queue.thread) && lines_->admits()) {
            callbacks_.onLate(queue);
        }
    }
    told_ = std::move(lateNow);
    constexpr double timesAsOften = 4;
    const bool isTime = interval_ && (!toldAliveAt_ || now - *toldAliveAt_ >= *interval_ / timesAsOften);
    // A thread that flushes to a slow disk is late too, and another one may be by the next look: that is no hang.
    const bool hangs = interval_ && !late.empty() && late.front().silence >= *interval_ / 2;
    if (isTime && !hangs) {
        toldAliveAt_ = now;
        callbacks_.onAlive();
    }
    timer_->arm(lookInterval, [this] { look(); });
}

/// Who has been late for longest first.
std::vector<platform::LateQueue> Watchdog::lateThreads() {
    std::vector<platform::LateQueue> late = home_.system.queues.lateQueues(limits::lateAfter);
    const platform::Clock::Instant now = home_.system.clock.now();
    if (!main_->isAsked.exchange(true)) {
        mainAskedAt_ = now;
        asio::post(home_.executor, [asked = main_] { asked->isAsked = false; });
    } else if (const Seconds silence = now - mainAskedAt_; silence >= limits::lateAfter) {
        late.push_back({.label = "main", .silence = silence});
    }
    std::ranges::sort(late, std::greater(), &platform::LateQueue::silence);
    return late;
}

} // namespace orlinth::host
