#pragma once

#include <functional>
#include <thread>

namespace orlinth::host {

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

private:
    void watch();

    std::function<void(int)> onSignal_;
    int signals_ = -1;
    int stop_ = -1;
    std::thread thread_;
};

} // namespace orlinth::host
