#pragma once

#include "base/Time.h"

#include <algorithm>
#include <optional>

namespace orlinth::host {

/// How soon notifications of what takes long come, and how often they change.
struct NoticePace {
    /// What takes less is not told of before it is over.
    static constexpr Seconds longTransfer = 5s;
    /// Between two changes of one notification.
    static constexpr Seconds changeInterval = 1s;
    /// Between two looks at a view of a job that nobody has answered for.
    static constexpr Seconds jobInterval = 250ms;
};

/// The sooner of the two: when something is to be looked at again. A time that is over is now.
inline void bringForward(std::optional<Seconds>& next, Seconds time) {
    next = std::max(Seconds(0), next ? std::min(*next, time) : time);
}

} // namespace orlinth::host
