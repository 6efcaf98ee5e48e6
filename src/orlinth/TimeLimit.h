#pragma once

#include "orlinth/TaskRunner.h"
#include "platform/Clock.h"

#include <memory>

namespace orlinth::host {

/// Cancels the task that runs when a step of it takes too long. On the runner's thread.
class TimeLimit {
public:
    /// `runner` runs the task and outlives this.
    TimeLimit(platform::Clock& clock, TaskRunner& runner);

    /// From now on `seconds` are left, whatever was left before.
    void begin(double seconds);
    void end() noexcept;
    /// Whether the task was cancelled from here.
    [[nodiscard]] bool hasExpired() const noexcept { return expired_; }

private:
    TaskRunner& runner_;
    std::unique_ptr<platform::Timer> timer_;
    bool expired_ = false;
};

} // namespace orlinth::host
