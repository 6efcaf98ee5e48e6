#include "fakes/VirtualClock.h"

#include "fakes/Event.h"
#include "platform/Cancelled.h"
#include "platform/Spawn.h"

#include <asio/post.hpp>

namespace orlinth::fakes {

class VirtualTimer : public platform::Timer {
public:
    VirtualTimer(VirtualClock& clock, Executor executor) : clock_(clock), executor_(std::move(executor)) {}
    VirtualTimer(const VirtualTimer&) = delete;
    VirtualTimer& operator=(const VirtualTimer&) = delete;
    ~VirtualTimer() override { disarm(); }

    void arm(Seconds delay, std::function<void()> action) override {
        disarm();
        auto state = std::make_shared<bool>(true);
        live_ = state;
        alarm_ = clock_.add(delay, [this, state, action = std::move(action)] {
            alarm_.reset();
            asio::post(executor_, [state, action] {
                if (*state) {
                    *state = false;
                    action();
                }
            });
        });
    }

    void disarm() noexcept override {
        if (live_) {
            *live_ = false;
        }
        if (alarm_) {
            clock_.alarms_.erase(*alarm_);
            alarm_.reset();
        }
    }

private:
    VirtualClock& clock_;
    Executor executor_;
    std::shared_ptr<bool> live_; // false once disarmed or run
    std::optional<VirtualClock::Alarms::iterator> alarm_;
};

EpochMilliseconds VirtualClock::epochMilliseconds() const {
    constexpr EpochMilliseconds start = std::chrono::sys_days(std::chrono::year(2026) / 1 / 1);
    return start + std::chrono::duration_cast<std::chrono::milliseconds>(now_.time_since_epoch());
}

VirtualClock::Alarms::iterator VirtualClock::add(Seconds delay, std::function<void()> action) {
    return alarms_.emplace(now_ + std::max<Seconds>(delay, 0s), std::move(action));
}

namespace {

/// Takes the alarm of a sleep back when the sleep ends early.
struct SleepAlarm {
    std::shared_ptr<Event> event;
    std::function<void()> cancel;
    ~SleepAlarm() { cancel(); }
};

} // namespace

Task<> VirtualClock::sleep(Seconds duration) {
    auto event = std::make_shared<Event>(context_.get_executor());
    auto rung = std::make_shared<bool>(false);
    const Alarms::iterator alarm = add(duration, [event, rung] {
        *rung = true;
        event->notify();
    });
    const SleepAlarm guard{event, [this, alarm, rung] {
                               if (!*rung) {
                                   alarms_.erase(alarm);
                               }
                           }};
    co_await event->wait();
}

std::unique_ptr<platform::Timer> VirtualClock::makeTimer(Executor executor) {
    return std::make_unique<VirtualTimer>(*this, std::move(executor));
}

bool VirtualClock::advanceToNextAlarm() {
    if (alarms_.empty()) {
        return false;
    }
    const auto first = alarms_.begin();
    now_ = std::max(now_, first->first);
    const std::function<void()> action = std::move(first->second);
    alarms_.erase(first);
    action();
    return true;
}

void runUntilIdle(asio::io_context& context, VirtualClock& clock) {
    do {
        context.restart();
        context.poll();
    } while (clock.advanceToNextAlarm());
}

namespace detail {

void start(asio::io_context& context, Task<> task, std::shared_ptr<std::exception_ptr> error,
           std::shared_ptr<bool> ended) {
    platform::spawn(context.get_executor(), std::move(task), [error, ended](std::exception_ptr escaped) {
        *error = std::move(escaped);
        *ended = true;
    });
}

void runUntilEnded(asio::io_context& context, VirtualClock& clock, const bool& ended) {
    for (;;) {
        context.restart();
        context.poll();
        if (ended) {
            return;
        }
        if (!clock.advanceToNextAlarm()) {
            throw std::logic_error("the task waits for something that will never happen");
        }
    }
}

} // namespace detail

} // namespace orlinth::fakes
