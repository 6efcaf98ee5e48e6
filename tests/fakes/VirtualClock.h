#pragma once

#include "platform/Clock.h"

#include <asio/io_context.hpp>

#include <map>
#include <optional>
#include <stdexcept>

namespace orlinth::fakes {

/// Time that moves only when a test says so, or when nothing else is left to do.
///
/// Lives on one thread, that of `context`.
class VirtualClock : public platform::Clock {
public:
    explicit VirtualClock(asio::io_context& context) : context_(context) {}

    /// 2026-01-01T00:00:00Z plus the time that has passed.
    [[nodiscard]] EpochMilliseconds epochMilliseconds() const override;
    [[nodiscard]] Instant now() const override { return now_; }
    /// Seconds since the clock was made.
    [[nodiscard]] double elapsed() const noexcept { return now_.time_since_epoch().count(); }
    [[nodiscard]] Task<> sleep(Seconds duration) override;
    [[nodiscard]] std::unique_ptr<platform::Timer> makeTimer(Executor executor) override;

    /// Moves to the next alarm and rings it; false if there is none.
    bool advanceToNextAlarm();
    /// Alarms that have not rung.
    [[nodiscard]] std::size_t pendingAlarms() const noexcept { return alarms_.size(); }

private:
    friend class VirtualTimer;
    using Alarms = std::multimap<Instant, std::function<void()>>;
    Alarms::iterator add(Seconds delay, std::function<void()> action);

    asio::io_context& context_;
    Instant now_{};
    Alarms alarms_;
};

/// Runs everything that is ready, then jumps to the next alarm, until nothing is left.
void runUntilIdle(asio::io_context& context, VirtualClock& clock);

namespace detail {
void start(asio::io_context& context, Task<> task, std::shared_ptr<std::exception_ptr> error,
           std::shared_ptr<bool> ended);
void runUntilEnded(asio::io_context& context, VirtualClock& clock, const bool& ended);
template <typename T>
Task<> keep(Task<T> task, std::shared_ptr<std::optional<T>> value) {
    T result = co_await std::move(task);
    value->emplace(std::move(result));
}
} // namespace detail

/// Runs one task to its end in virtual time and returns what it returns, or throws what it throws.
/// Throws std::logic_error if it waits for something that will never happen.
template <typename T>
T runVirtual(asio::io_context& context, VirtualClock& clock, Task<T> task) {
    auto value = std::make_shared<std::optional<T>>();
    auto error = std::make_shared<std::exception_ptr>();
    auto ended = std::make_shared<bool>(false);
    detail::start(context, detail::keep(std::move(task), value), error, ended);
    detail::runUntilEnded(context, clock, *ended);
    if (*error) {
        std::rethrow_exception(*error);
    }
    return std::move(value->value());
}

inline void runVirtual(asio::io_context& context, VirtualClock& clock, Task<> task) {
    auto error = std::make_shared<std::exception_ptr>();
    auto ended = std::make_shared<bool>(false);
    detail::start(context, std::move(task), error, ended);
    detail::runUntilEnded(context, clock, *ended);
    if (*error) {
        std::rethrow_exception(*error);
    }
}

} // namespace orlinth::fakes
