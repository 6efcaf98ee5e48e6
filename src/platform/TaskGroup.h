#pragma once

#include "platform/Task.h"

#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>

namespace orlinth::platform {

/// The tasks that an object has started: it cancels them together, waits for their ends, and takes them along when it
/// goes.
///
///     add() ──▶ runs ──▶ has ended ──▶ out of the group, and then onEnd is called
///
/// Ownership: destroying the group cancels its tasks. They end soon after, on the executor, so what they and their
/// `onEnd` refer to must outlive that; an owner to whom they refer cancels them and awaits join() first.
/// Threading: every call, destruction included, on the executor, which runs one thing at a time.
class TaskGroup {
public:
    /// What has escaped from a task, null if it ended well. Called once for each task, on the executor, also for those
    /// that outlive the group. What it throws itself leaves the executor's context; the group is in order then.
    using OnEnd = std::function<void(std::exception_ptr)>;

    /// Names a task of the group, also once it has ended. No two tasks of a group have the same.
    enum class Id : std::uint64_t {};

    explicit TaskGroup(Executor executor);
    TaskGroup(const TaskGroup&) = delete;
    TaskGroup& operator=(const TaskGroup&) = delete;
    ~TaskGroup();

    /// Starts the task at the executor's next turn. Tasks and their `onEnd` may add others.
    Id add(Task<> task, OnEnd onEnd);
    /// Cancels one, if it has not ended; it ends soon after. One that has not begun never runs, and its `onEnd` gets
    /// the cancellation.
    void cancel(Id task);
    /// The same for all that are in the group now.
    void cancelAll();

    /// Returns when the group is empty, tasks included that are added meanwhile; the last `onEnd` has been called then.
    /// @throws Cancelled
    [[nodiscard]] Task<> join();
    /// Returns when the group has fewer tasks than that. @throws Cancelled
    [[nodiscard]] Task<> untilFewerThan(std::size_t tasks);

    [[nodiscard]] std::size_t size() const noexcept;
    [[nodiscard]] bool isEmpty() const noexcept { return size() == 0; }

private:
    struct State;
    std::shared_ptr<State> state_;
};

} // namespace orlinth::platform
