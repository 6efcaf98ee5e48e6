#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <thread>

namespace orlinth::cli {

/// Takes SIGINT and SIGTERM on a thread of its own, so that they are heard even while another one waits for a disk.
///
/// Must exist before any other thread does: the signals are blocked from here on, in this thread and all that it
/// starts. A signal that is ignored when the program starts (nohup, a background job) stays ignored.
class SignalWatch {
public:
    /// `onSignal` is called on the watch's own thread with each signal's number. @throws platform::SystemError
    explicit SignalWatch(std::function<void(int)> onSignal);
    ~SignalWatch();
    SignalWatch(const SignalWatch&) = delete;
    SignalWatch& operator=(const SignalWatch&) = delete;

    /// Calls `onOverdue` on the watch's thread when this time has passed. Only from within `onSignal`.
    void limit(std::chrono::milliseconds time, std::function<void()> onOverdue);

private:
    using Clock = std::chrono::steady_clock;

    void watch();
    /// Milliseconds until the limit, for poll(); -1 without one.
    [[nodiscard]] int left() const;

    std::function<void(int)> onSignal_;
    std::optional<Clock::time_point> limit_; ///< this one and the next: on the watch's thread only
    std::function<void()> onOverdue_;
    int signals_ = -1;
    int stop_ = -1;
    std::thread thread_;
};

} // namespace orlinth::cli
