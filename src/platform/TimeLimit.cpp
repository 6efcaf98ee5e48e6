#include "platform/TimeLimit.h"

#include <utility>

namespace orlinth::platform {

TimeLimit::TimeLimit(Clock& clock, const Executor& executor, std::function<void()> end)
    : end_(std::move(end)), timer_(clock.makeTimer(executor)) {}

void TimeLimit::begin(double seconds) {
    expired_ = false;
    if (seconds <= 0) {
        end();
        return;
    }
    timer_->arm(seconds, [this] {
        expired_ = true;
        end_();
    });
}

void TimeLimit::end() noexcept {
    timer_->disarm();
}

} // namespace orlinth::platform
