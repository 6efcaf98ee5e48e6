#include "orlinth/TimeLimit.h"

namespace orlinth::host {

TimeLimit::TimeLimit(platform::Clock& clock, TaskRunner& runner)
    : runner_(runner), timer_(clock.makeTimer(runner.executor())) {}

void TimeLimit::begin(double seconds) {
    timer_->arm(seconds, [this] {
        expired_ = true;
        runner_.cancel();
    });
}

void TimeLimit::end() noexcept {
    timer_->disarm();
}

} // namespace orlinth::host
