#pragma once

#include "platform/Clock.h"
#include "platform/Deadline.h"

#include <asio/steady_timer.hpp>

#include <optional>

namespace orlinth::platform {

/// Lets tasks wait until something is so of state that one executor owns.
///
///     the state changes ── changed() ──▶ whoever waits looks at its predicate ──▶ goes on, or waits again
///
/// A look and the wait behind it are one step on the executor, so no change comes in between. A task looks when it
/// resumes: if the state has changed back by then, it goes on waiting.
///
/// Costs nothing but its executor until somebody has to wait. Ownership: outlives those who wait. Threading: every call
/// on the executor, which runs one thing at a time; it must be the one that the waiting tasks run on. For what other
/// threads tell there is Event.
class Condition {
public:
    explicit Condition(Executor executor);
    Condition(const Condition&) = delete;
    Condition& operator=(const Condition&) = delete;

    /// Somebody's predicate may hold now.
    void changed() noexcept;

    /// Returns once `isSo()` holds, at once if it does already. What the predicate refers to outlives the task.
    /// @throws Cancelled; whatever the predicate throws
    template <typename Predicate>
    [[nodiscard]] Task<> until(Predicate isSo) {
        while (!isSo()) {
            co_await nextChange();
        }
    }

    /// The same, for at most `limit`; returns whether it came to be so.
    template <typename Predicate>
    [[nodiscard]] Task<bool> until(Predicate isSo, Clock& clock, Seconds limit) {
        if (isSo()) {
            co_return true;
        }
        if (limit <= 0s) {
            co_return false;
        }
        Task<> wait = until(isSo);
        const bool hasCome = co_await endsWithin(clock, limit, std::move(wait));
        co_return hasCome || isSo();
    }

private:
    [[nodiscard]] Task<> nextChange();

    Executor executor_;
    std::optional<asio::steady_timer> timer_; ///< never rings, is cancelled at each change; made by the first who waits
};

} // namespace orlinth::platform
