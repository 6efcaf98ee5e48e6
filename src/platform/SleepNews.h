#pragma once

#include "platform/Task.h"

#include <functional>
#include <memory>

namespace orlinth::platform {

/// Hears of it for as long as this lives. Destroying it, also in its own call, ends that: nothing is called any more.
///
/// Threading: made and destroyed on its executor, or while nobody runs that. It is work that keeps the executor
/// running.
class SleepWatch {
public:
    virtual ~SleepWatch() = default;
};

/// Says that this computer has just woken up from suspend or hibernation. Never relied on: a system that does not tell
/// is as if it never slept.
class SleepNews {
public:
    virtual ~SleepNews() = default;
    /// Calls `onWake` on `executor` whenever the computer has woken up, from now on. Does not wait for anything.
    [[nodiscard]] virtual std::unique_ptr<SleepWatch> watch(Executor executor, std::function<void()> onWake) = 0;
};

} // namespace orlinth::platform
