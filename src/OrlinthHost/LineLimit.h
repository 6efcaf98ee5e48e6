#pragma once

#include "platform/Clock.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

namespace orlinth::host {

/// Keeps others from filling the log: a few lines about them are written a minute, then once a minute how many more
/// there were, until a minute has passed without any.
///
/// Lives on the timer's executor.
class LineLimit {
public:
    /// `tellMore` is called with the number of lines that were left out.
    LineLimit(platform::Clock& clock, const Executor& executor, int linesPerMinute,
              std::function<void(std::int64_t)> tellMore)
        : timer_(clock.makeTimer(executor)), linesPerMinute_(linesPerMinute), tellMore_(std::move(tellMore)) {}

    /// One more line. Returns whether it is to be written; it is counted if not.
    [[nodiscard]] bool admits() {
        if (!isCounting_) {
            isCounting_ = true;
            told_ = 0;
            watchMinute();
        }
        if (told_ < linesPerMinute_) {
            ++told_;
            return true;
        }
        ++untold_;
        return false;
    }

    /// Tells at once of those that were left out.
    void finish() {
        timer_->disarm();
        isCounting_ = false;
        tellUntold();
    }

private:
    void watchMinute() {
        timer_->arm(1min, [this] {
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
    int linesPerMinute_;
    std::function<void(std::int64_t)> tellMore_;
    bool isCounting_ = false; ///< a minute is under way
    int told_ = 0;
    std::int64_t untold_ = 0;
};

} // namespace orlinth::host
