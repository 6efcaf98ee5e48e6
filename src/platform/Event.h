#pragma once

#include "platform/Clock.h"

#include <memory>

namespace orlinth::platform {

/// Something that happens, once or until it is reset; tasks of one executor wait for it.
///
/// Whoever waits when it is set goes on, also if it is reset before the task resumes; whoever waits later goes on at
/// once until then.
///
/// Ownership: what a wait needs is shared, so the event may go while somebody waits, who then waits until cancelled.
/// Threading: wait() on the executor, which runs one thing at a time; everything else on any thread, as long as the
/// executor's context lives. Setting it resumes nobody before it returns, so it may be set under a lock.
class Event {
public:
    explicit Event(Executor executor);
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;
    ~Event();

    /// Nothing if it is set already.
    void set();
    void reset() noexcept;
    [[nodiscard]] bool isSet() const noexcept;

    /// Until it is set. @throws Cancelled
    [[nodiscard]] Task<> wait();
    /// The same, for at most `limit`; returns whether it came. `clock` outlives the task. @throws Cancelled
    [[nodiscard]] Task<bool> wait(Clock& clock, Seconds limit);

private:
    struct State;
    class Arrival;
    std::shared_ptr<State> state_;
};

} // namespace orlinth::platform
