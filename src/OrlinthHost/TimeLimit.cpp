#include "OrlinthHost/TimeLimit.h"

#include <utility>

namespace orlinth::host {

TimeLimit::TimeLimit(platform::Clock& clock, const Executor& executor, std::function<void()> cancel)
    : cancel_(std::move(cancel)), timer_(clock.makeTimer(executor)) {}

void TimeLimit::begin(double seconds) {
    timer_->arm(seconds, [this] {
        expired_ = true;
        cancel_();
    });
}

void TimeLimit::end() noexcept {
    timer_->disarm();
}

} // namespace orlinth::host
