#include "platform/Event.h"

#include "platform/Condition.h"

#include <asio/dispatch.hpp>

#include <atomic>
#include <cstdint>
#include <utility>

namespace orlinth::platform {

struct Event::State {
    explicit State(Executor queue) : executor(std::move(queue)), condition(executor) {}

    const Executor executor;
    std::atomic<bool> isSet = false;
    std::atomic<std::uint64_t> settings = 0; ///< how often it was set, so that a reset hides none from who waits
    Condition condition;                     ///< on the executor
};

/// Whether it is set, or has been since somebody began to wait.
class Event::Arrival {
public:
    explicit Arrival(std::shared_ptr<State> state) : state_(std::move(state)), before_(state_->settings) {}
    [[nodiscard]] bool operator()() const noexcept { return state_->isSet || state_->settings != before_; }
    [[nodiscard]] Condition& condition() const noexcept { return state_->condition; }

private:
    std::shared_ptr<State> state_;
    std::uint64_t before_;
};

Event::Event(Executor executor) : state_(std::make_shared<State>(std::move(executor))) {}
Event::~Event() = default;

void Event::set() {
    if (state_->isSet.exchange(true)) {
        return;
    }
    ++state_->settings;
    asio::dispatch(state_->executor, [state = state_] { state->condition.changed(); });
}

void Event::reset() noexcept {
    state_->isSet = false;
}

bool Event::isSet() const noexcept {
    return state_->isSet;
}

Task<> Event::wait() {
    const Arrival arrival(state_);
    return arrival.condition().until(arrival);
}

Task<bool> Event::wait(Clock& clock, Seconds limit) {
    const Arrival arrival(state_);
    return arrival.condition().until(arrival, clock, limit);
}

} // namespace orlinth::platform
