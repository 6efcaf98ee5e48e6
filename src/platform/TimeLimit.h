#pragma once

#include "platform/Clock.h"

#include <functional>
#include <memory>

namespace orlinth::platform {

/// Ends something that takes too long, such as a step of a conversation, by the means that it is given.
///
/// Threading: every call, and the end, on one executor, that of what is limited.
class TimeLimit {
public:
    /// `end` ends what runs on `executor`; it is called at most once for each begin().
    TimeLimit(Clock& clock, const Executor& executor, std::function<void()> end);

    /// From now on `time` is left, whatever was left before; zero or less: no limit.
    void begin(Seconds time);
    void end() noexcept;
    /// Whether it was this that has ended it, since begin().
    [[nodiscard]] bool hasExpired() const noexcept { return expired_; }

private:
    std::function<void()> end_;
    std::unique_ptr<Timer> timer_;
    bool expired_ = false;
};

} // namespace orlinth::platform
