#pragma once

#include "platform/Condition.h"

#include <utility>

namespace orlinth::platform {

/// Lets one task at a time through a section that waits. Lives on one serial queue; holds no thread.
///
/// Not fair, and for a handful of waiters: each release wakes all of them and one gets through.
class AsyncMutex {
public:
    explicit AsyncMutex(Executor queue) : released_(std::move(queue)) {}
    AsyncMutex(const AsyncMutex&) = delete;
    AsyncMutex& operator=(const AsyncMutex&) = delete;

    /// The right to be inside; ends with the object. Must be destroyed on the mutex's queue.
    class Guard {
    public:
        explicit Guard(AsyncMutex& mutex) noexcept : mutex_(&mutex) {}
        Guard(Guard&& other) noexcept : mutex_(std::exchange(other.mutex_, nullptr)) {}
        Guard& operator=(Guard&&) = delete;
        ~Guard() {
            if (mutex_ != nullptr) {
                mutex_->held_ = false;
                mutex_->released_.changed();
            }
        }

    private:
        AsyncMutex* mutex_;
    };

    /// Waits for its turn. The mutex must outlive the guard. @throws Cancelled
    [[nodiscard]] Task<Guard> lock() {
        const auto isFree = [this] { return !held_; };
        co_await released_.until(isFree);
        held_ = true;
        co_return Guard(*this);
    }

private:
    Condition released_;
    bool held_ = false;
};

} // namespace orlinth::platform
