#include "OrlinthHost/Service/Watchdog.h"

#include "platform/Spawn.h"

#include <asio/post.hpp>

#include <algorithm>
#include <exception>
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
    isAtWork_ = true;
    isStirred_ = true;
    lookIsDue_ = home_.system.clock.now();
    asio::post(queue_, [this] { look(); }); // finish() comes behind it
}

void Watchdog::stir() noexcept {
    // While it watches, the mark is all; it is set before isResting_ is read, and a look reads them the other way
    // round.
    if (isStirred_.exchange(true) || !isAtWork_ || !isResting_.exchange(false)) {
        return;
    }
    try {
        asio::post(queue_, [this] { look(); }); // finish() comes behind it
    } catch (const std::exception&) {
        return; // no memory: it looks when it would have
    }
}

Task<> Watchdog::finish() {
    isAtWork_ = false;
    return platform::runOn(queue_, end(*this));
}

Task<> Watchdog::end(Watchdog& self) {
    self.lines_->finish();
    self.lines_.reset(); // both timers here, as a wait that was just cancelled may still be on its way
    self.timer_.reset();
    co_return;
}

void Watchdog::look() {
    isResting_ = false;
    const platform::Clock::Instant now = home_.system.clock.now();
    // The whole process was stopped: who was not? A rest that was cut short is no sign of that.
    const bool wasAway = now - lookIsDue_ > limits::lateAfter;
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
    lookAgain(now, !told_.empty());
}

void Watchdog::lookAgain(platform::Clock::Instant now, bool isLate) {
    if (isStirred_.exchange(false)) {
        stirredAt_ = now;
    }
    const bool mayRest = !isLate && now - stirredAt_ >= restAfter;
    Seconds pause = lookInterval;
    if (mayRest) {
        constexpr double timesAsOften = 4;
        pause = interval_ ? std::clamp(*interval_ / timesAsOften, lookInterval, restInterval) : restInterval;
        isResting_ = true;
        if (isStirred_ && isResting_.exchange(false)) { // in between; else a look is on its way
            pause = lookInterval;
        }
    }
    lookIsDue_ = now + std::chrono::duration_cast<platform::Clock::Instant::duration>(pause);
    timer_->arm(pause, [this] { look(); });
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
