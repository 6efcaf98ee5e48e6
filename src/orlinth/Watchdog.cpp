#include "orlinth/Watchdog.h"

#include "platform/Spawn.h"

#include <asio/post.hpp>

#include <algorithm>
#include <cmath>
#include <string>
#include <utility>

namespace orlinth::host {

Watchdog::Watchdog(Host& host, std::optional<double> interval, std::function<void()> tellAlive)
    : host_(host),
      interval_(interval),
      tellAlive_(std::move(tellAlive)),
      queue_(host.system.network.makeThreadQueue("orlinth.serve.watchdog")),
      timer_(host.system.clock.makeTimer(queue_)),
      lines_(host.system.clock, queue_, limits::linesOfStrangers, [](std::int64_t untold) {
          writeToStandardError("orlinth: threads did not answer " + std::to_string(untold) + " more times\n");
      }) {}

void Watchdog::start() {
    asio::post(queue_, [this] { look(); }); // finish() comes behind it
}

Task<> Watchdog::finish() {
    return platform::runOn(queue_, end(*this));
}

Task<> Watchdog::end(Watchdog& self) {
    self.timer_.reset(); // here, as a wait that was just cancelled may still be on its way
    self.lines_.finish();
    co_return;
}

void Watchdog::look() {
    const platform::Clock::Instant now = host_.system.clock.now();
    const bool wasAway = (now - lookedAt_).count() > limits::lateSeconds; // the whole process was stopped: who was not?
    lookedAt_ = now;
    std::vector<platform::LateQueue> late = lateThreads();
    if (wasAway) {
        late.clear();
    }
    for (std::size_t i = told_; i < late.size(); ++i) { // those before it were late at the last look
        if (lines_.admits()) {                          // not by way of the thread of `main`, which may hang itself
            writeToStandardError("orlinth: a thread has not answered for " +
                                 std::to_string(std::lround(late[i].seconds)) + " seconds: " + late[i].label + "\n");
        }
    }
    told_ = late.size();
    constexpr double timesAsOften = 4;
    const bool isTime = interval_ && (!toldAliveAt_ || (now - *toldAliveAt_).count() >= *interval_ / timesAsOften);
    // A thread that flushes to a slow disk is late too, and another one may be by the next look: that is no hang.
    const bool hangs = interval_ && !late.empty() && late.front().seconds >= *interval_ / 2;
    if (isTime && !hangs) {
        toldAliveAt_ = now;
        tellAlive_();
    }
    timer_->arm(lookSeconds, [this] { look(); });
}

/// Who has been late for longest first.
std::vector<platform::LateQueue> Watchdog::lateThreads() {
    std::vector<platform::LateQueue> late = host_.system.network.lateQueues(limits::lateSeconds);
    const platform::Clock::Instant now = host_.system.clock.now();
    if (!main_->isAsked.exchange(true)) {
        mainAskedAt_ = now;
        asio::post(host_.tasks.executor(), [asked = main_] { asked->isAsked = false; });
    } else if (const double seconds = (now - mainAskedAt_).count(); seconds >= limits::lateSeconds) {
        late.push_back({.label = "main", .seconds = seconds});
    }
    std::ranges::sort(late, std::greater(), &platform::LateQueue::seconds);
    return late;
}

} // namespace orlinth::host
