#pragma once

#include "OrlinthHost/SmoothedRate.h"
#include "base/Progress.h"
#include "base/Time.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace orlinth::cli {

/// One line on the terminal that standard error is, redrawn in place: name, percent, bar, rate, time left.
///
/// Draws nothing unless standard error is a terminal that can go back to the start of a line. Keeps within the
/// terminal's width as it is at each drawing, so that a changed window needs no notice.
class ProgressBar {
public:
    /// It is drawn no more often.
    static constexpr Seconds drawingInterval = 100ms;

    /// Looks at standard error, TERM and NO_COLOR.
    ProgressBar();

    /// Never draw from here on.
    void disable() noexcept { enabled_ = false; }
    [[nodiscard]] bool isEnabled() const noexcept { return enabled_; }

    /// A new file of which so much is there already; `name` must be fit for a terminal.
    void begin(std::string name, const Progress& progress);
    /// Another name for what is under way, from the next drawing on.
    void rename(std::string name);
    /// So many bytes more are there without having been sent now: they do not count for the rate.
    void skip(std::int64_t bytes) noexcept { doneWhenLastDrawn_ += bytes; }
    /// Redraws, unless it did a moment ago.
    void update(const Progress& progress);
    /// From here on the line comes back with the next update() after it was taken away, not a moment later: for when
    /// lines are written above it all the time.
    void stay() noexcept { redrawsAtOnce_ = true; }
    /// Takes the line away, so that something else can be written there.
    void clear() noexcept;

private:
    using Clock = std::chrono::steady_clock;

    void draw();
    [[nodiscard]] std::string line(std::size_t columns) const;

    bool enabled_;
    bool coloured_;
    bool shown_ = false;
    bool redrawsAtOnce_ = false;
    std::string name_;
    Progress progress_;
    Clock::time_point lastDrawn_;
    std::int64_t doneWhenLastDrawn_ = 0;
    host::SmoothedRate rate_;
};

} // namespace orlinth::cli
