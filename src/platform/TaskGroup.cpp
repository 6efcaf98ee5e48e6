#include "platform/TaskGroup.h"

#include "platform/Condition.h"
#include "platform/Spawn.h"

#include <asio/post.hpp>

#include <map>
#include <utility>
#include <vector>

namespace orlinth::platform {

/// Shared with the ends of the tasks, which may come after the group is gone.
struct TaskGroup::State {
    using Signal = std::shared_ptr<asio::cancellation_signal>;

    explicit State(Executor queue) : executor(std::move(queue)), condition(executor) {}

    [[nodiscard]] static Task<> untilFewerThan(std::shared_ptr<State> self, std::size_t tasks) {
        const auto areFewer = [state = self.get(), tasks] { return state->running.size() < tasks; };
        co_await self->condition.until(areFewer);
    }

    const Executor executor;
    std::map<Id, Signal> running; ///< one for each task
    std::uint64_t added = 0;
    Condition condition; ///< a task has left
};

TaskGroup::TaskGroup(Executor executor) : state_(std::make_shared<State>(std::move(executor))) {}

TaskGroup::~TaskGroup() {
    cancelAll();
}

TaskGroup::Id TaskGroup::add(Task<> task, OnEnd onEnd) {
    const Id id{++state_->added};
    const auto place = state_->running.emplace(id, std::make_shared<asio::cancellation_signal>()).first;
    const asio::cancellation_slot slot = place->second->slot();
    spawn(state_->executor, std::move(task), slot,
          [state = state_, place, onEnd = std::move(onEnd)](std::exception_ptr error) mutable {
              // not here, where the signal's slot may still be in use
              asio::post(state->executor, [state, place, onEnd = std::move(onEnd), error = std::move(error)] {
                  state->running.erase(place);
                  state->condition.changed(); // resumes nobody before this has ended
                  onEnd(error);
              });
          });
    return id;
}

void TaskGroup::cancel(Id task) {
    if (const auto at = state_->running.find(task); at != state_->running.end()) {
        const State::Signal signal = at->second; // which it may leave by this
        signal->emit(asio::cancellation_type::terminal);
    }
}

void TaskGroup::cancelAll() {
    std::vector<Id> now;
    for (const auto& [id, signal] : state_->running) {
        now.push_back(id);
    }
    for (const Id id : now) {
        cancel(id);
    }
}

Task<> TaskGroup::join() {
    return untilFewerThan(1);
}

Task<> TaskGroup::untilFewerThan(std::size_t tasks) {
    return State::untilFewerThan(state_, tasks);
}

std::size_t TaskGroup::size() const noexcept {
    return state_->running.size();
}

} // namespace orlinth::platform
