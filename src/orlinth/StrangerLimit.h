#pragma once

#include "platform/Clock.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

namespace orlinth::host {

/// Keeps those who are not, or no longer, paired from filling the log: a few of their failures are told a minute, then
/// once a minute how many more there were, until a minute has passed without any.
///
/// Lives on the timer's executor.
class StrangerLimit {
public:
    static constexpr int linesPerMinute = 5;

    /// `tellMore` is called with the number of failures that were not told.
    StrangerLimit(platform::Clock& clock, const Executor& executor, std::function<void(std::int64_t)> tellMore)
        : timer_(clock.makeTimer(executor)), tellMore_(std::move(tellMore)) {}

    /// One more failure. Returns whether it is to be told; it is counted if not.
    [[nodiscard]] bool admits() {
        if (!isCounting_) {
            isCounting_ = true;
            told_ = 0;
            watchMinute();
        }
        if (told_ < linesPerMinute) {
            ++told_;
            return true;
        }
        ++untold_;
        return false;
    }

    /// Tells at once of those that were not told.
    void finish() {
        timer_->disarm();
        isCounting_ = false;
        tellUntold();
    }

private:
    void watchMinute() {
        timer_->arm(60, [this] {
            isCounting_ = untold_ > 0;
            tellUntold();
            if (isCounting_) {
                watchMinute();
            }
        });
    }

    void tellUntold() {
        if (untold_ > 0) {
            tellMore_(std::exchange(untold_, 0));
        }
    }

    std::unique_ptr<platform::Timer> timer_;
    std::function<void(std::int64_t)> tellMore_;
    bool isCounting_ = false; ///< a minute is under way
    int told_ = 0;
    std::int64_t untold_ = 0;
};

} // namespace orlinth::host
