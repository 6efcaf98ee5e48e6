#pragma once

#include "platform/WorkQueues.h"

#include <functional>

namespace orlinth::host {

/// Small jobs that may block, done one after the other on a thread of their own, while the one who gives them goes on.
class Chores {
public:
    /// `label` names the queue for diagnostics.
    Chores(platform::WorkQueues& queues, const char* label) : queue_(queues.makeThreadQueue(label)) {}

    /// Any thread. `chore` must not throw.
    void add(std::function<void()> chore);
    /// Waits until everything that was added is done.
    [[nodiscard]] Task<> finish();

    [[nodiscard]] const Executor& queue() const noexcept { return queue_; }

private:
    Executor queue_;
};

} // namespace orlinth::host
