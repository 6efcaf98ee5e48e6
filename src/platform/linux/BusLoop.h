#pragma once

#include "platform/Task.h"
#include "platform/linux/SessionBus.h"

#include <chrono>
#include <functional>
#include <memory>

namespace orlinth::platform {

/// A connection to a bus, the session's or the system's, that an executor looks after: Asio waits for its socket and
/// for its time limits, and nothing here waits for the bus, but runUntil().
///
/// What others send is worked through a few messages at a time, so that a flood of them leaves the executor's other
/// work its turns. A bus that has not said hello within the limit for answers counts as lost.
///
/// Threading: calls are made on the executor, or by one thread while nobody runs that. The callbacks of sd-bus come on
/// the executor, or from within runUntil(); any of them may close the connection. An open connection is work that keeps
/// the executor running. Destroying the object, also in `onLost`, closes the connection: nothing is called any more.
class BusLoop {
public:
    using SteadyClock = std::chrono::steady_clock;

    /// Messages that are worked through before others have their turn.
    static constexpr int maxMessagesPerTurn = 16;

    /// `onLost` is called when a connection has ended otherwise than by close(), which by then is closed: get() is
    /// null, and open() begins another one. On the executor, or from within runUntil().
    BusLoop(Executor executor, BusEnvironment environment, std::chrono::microseconds answerLimit,
            std::function<void()> onLost);
    ~BusLoop();
    BusLoop(const BusLoop&) = delete;
    BusLoop& operator=(const BusLoop&) = delete;

    /// Begins to connect, unless there is a connection; false where there is no bus. What is asked of the connection
    /// goes out once the bus has said hello, and fails if its answer takes longer than the limit.
    [[nodiscard]] bool open();
    /// Ends the connection, if there is one. What was asked of it is not answered any more.
    void close() noexcept;
    /// For the calls of sd-bus; null if there is no connection.
    [[nodiscard]] sd_bus* get() const noexcept;
    /// To be called after something was asked of the connection otherwise than in its callbacks.
    void wake();
    /// Works on the connection on the caller's thread until this holds, but no longer than until `end` and not without
    /// a connection; returns whether it holds. What has come already is looked at in any case. Not in a callback.
    bool runUntil(const std::function<bool()>& isDone, SteadyClock::time_point end);

private:
    struct Connection;

    Executor executor_;
    BusEnvironment environment_;
    std::chrono::microseconds answerLimit_;
    std::shared_ptr<const std::function<void()>> onLost_;
    std::shared_ptr<Connection> connection_; ///< null if there is none; a turn that is under way holds it too
};

} // namespace orlinth::platform
