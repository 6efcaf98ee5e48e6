#pragma once

#include "orlinth/TaskRunner.h"
#include "platform/Clock.h"

#include <functional>
#include <memory>

namespace orlinth::host {

/// Cancels a task when a step of it takes too long. On the runner's thread.
class TimeLimit {
public:
    /// For the one task that `runner` runs; the runner outlives this.
    TimeLimit(platform::Clock& clock, TaskRunner& runner);
    /// For one of several tasks on `executor`: `cancel` ends it.
    TimeLimit(platform::Clock& clock, const Executor& executor, std::function<void()> cancel);

    /// From now on `seconds` are left, whatever was left before.
    void begin(double seconds);
    void end() noexcept;
    /// Whether the task was cancelled from here.
    [[nodiscard]] bool hasExpired() const noexcept { return expired_; }

private:
    std::function<void()> cancel_;
    std::unique_ptr<platform::Timer> timer_;
    bool expired_ = false;
};

} // namespace orlinth::host
