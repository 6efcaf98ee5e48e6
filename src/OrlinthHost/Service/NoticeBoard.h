#pragma once

#include "OrlinthHost/Home.h"
#include "platform/JobViews.h"

#include <functional>
#include <utility>

namespace orlinth::host {

/// Where the service's notifications go, if anybody wants them just now. A plain value that refers to what outlives it.
class NoticeBoard {
public:
    /// `jobs` may be null: the desktop has no views of jobs. `isOn` is asked each time; empty: yes.
    NoticeBoard(Home& home, platform::JobViews* jobs, std::function<bool()> isOn)
        : home_(&home), jobs_(jobs), isOn_(std::move(isOn)) {}

    [[nodiscard]] Home& home() const noexcept { return *home_; }
    /// Whether notifications are shown. What is on the desktop already stays until something else would be said in its
    /// place.
    [[nodiscard]] bool isOn() const { return !isOn_ || isOn_(); }
    /// Null if there are none, or nothing is to be shown just now.
    [[nodiscard]] platform::JobViews* jobs() const { return isOn() ? jobs_ : nullptr; }

private:
    Home* home_;
    platform::JobViews* jobs_;
    std::function<bool()> isOn_;
};

} // namespace orlinth::host
