#pragma once

#include "platform/Clock.h"

#include <functional>
#include <memory>

namespace orlinth::host {

/// Cancels a task when a step of it takes too long. On one executor, that of the task.
class TimeLimit {
public:
    /// For a task on `executor`: `cancel` ends it.
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
