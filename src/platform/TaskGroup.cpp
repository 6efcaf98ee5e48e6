#include "platform/TaskGroup.h"

#include "platform/Condition.h"
#include "platform/Spawn.h"

#include <asio/post.hpp>

#include <list>
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
    std::list<Signal> running; ///< one for each task
    Condition condition;       ///< a task has left
};

TaskGroup::TaskGroup(Executor executor) : state_(std::make_shared<State>(std::move(executor))) {}

TaskGroup::~TaskGroup() {
    cancelAll();
}

void TaskGroup::add(Task<> task, OnEnd onEnd) {
    const auto place = state_->running.insert(state_->running.end(), std::make_shared<asio::cancellation_signal>());
    const asio::cancellation_slot slot = (*place)->slot();
    spawn(state_->executor, std::move(task), slot,
          [state = state_, place, onEnd = std::move(onEnd)](std::exception_ptr error) mutable {
              // not here, where the signal's slot may still be in use
              asio::post(state->executor, [state, place, onEnd = std::move(onEnd), error = std::move(error)] {
                  state->running.erase(place);
                  state->condition.changed(); // resumes nobody before this has ended
                  onEnd(error);
              });
          });
}

void TaskGroup::cancelAll() {
    const std::vector<State::Signal> now(state_->running.begin(), state_->running.end());
    for (const State::Signal& signal : now) {
        signal->emit(asio::cancellation_type::terminal);
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
