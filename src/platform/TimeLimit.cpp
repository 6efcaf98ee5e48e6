#include "platform/TimeLimit.h"

#include <utility>

namespace orlinth::platform {

TimeLimit::TimeLimit(Clock& clock, const Executor& executor, std::function<void()> end)
    : end_(std::move(end)), timer_(clock.makeTimer(executor)) {}

void TimeLimit::begin(Seconds time) {
    expired_ = false;
    if (time <= 0s) {
        end();
        return;
    }
    timer_->arm(time, [this] {
        expired_ = true;
        end_();
    });
}

void TimeLimit::end() noexcept {
    timer_->disarm();
}

} // namespace orlinth::platform
