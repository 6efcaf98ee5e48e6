#pragma once

#include "platform/Task.h"

#include <functional>
#include <memory>
#include <string>

namespace orlinth::platform {

/// Somebody who listens for a signal. Destroying it ends that: nothing is called any more, once the executor has run
/// what was posted before.
class SignalSubscription {
public:
    virtual ~SignalSubscription() = default;
};

/// Signals between the programs of one desktop session, which carry nothing but their name: whoever hears one looks for
/// itself at what has changed. Never relied on: a session may have no bus, and whoever was not there misses it.
class BusSignals {
public:
    virtual ~BusSignals() = default;
    /// Sends the signal to whoever listens now. Returns within a quarter of a second, whether there is a bus or not.
    /// `name` is in reverse-DNS form, "com.example.part-changed".
    virtual void post(const std::string& name) noexcept = 0;
    /// Calls `onSignal` on `executor` for each signal of this name, from this or any other program. A bus that comes
    /// later, or comes back, is used.
    [[nodiscard]] virtual std::unique_ptr<SignalSubscription> listen(const std::string& name, Executor executor,
                                                                     std::function<void()> onSignal) = 0;
};

} // namespace orlinth::platform
