#pragma once

#include "fakes/MemoryFaults.h"
#include "fakes/MemoryFileSystem.h"
#include "fakes/MemoryTree.h"

#include <condition_variable>
#include <functional>
#include <mutex>

namespace orlinth::fakes {

/// What a MemoryFileSystem and its open files and folders share.
struct MemoryFileSystem::State {
    State() {
        faults.onCrash = [this] { unlocked.notify_all(); };
    }
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    /// Announces the operation. Takes no lock.
    void announce(Operation operation, const platform::Path& path) {
        std::function<void(Operation, const platform::Path&)> action;
        {
            const std::lock_guard guard(lock);
            if (!beforeEach || announcing) {
                return;
            }
            announcing = true;
            action = beforeEach;
        }
        action(operation, path);
        const std::lock_guard guard(lock);
        announcing = false;
    }

    mutable std::mutex lock; ///< guards everything here
    std::condition_variable unlocked;
    memory::Tree tree;
    memory::Faults faults;
    std::function<void(Operation, const platform::Path&)> beforeEach;
    bool announcing = false;
};

} // namespace orlinth::fakes
