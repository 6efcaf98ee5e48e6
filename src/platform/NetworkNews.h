#pragma once

#include "platform/Task.h"

#include <functional>
#include <memory>

namespace orlinth::platform {

/// The network is watched for as long as this lives. Destroying it, also in its own call, ends that: nothing is called
/// any more.
///
/// Threading: made and destroyed on its executor, or while nobody runs that. It is work that keeps the executor
/// running.
class NetworkWatch {
public:
    virtual ~NetworkWatch() = default;
};

/// Says when the way from this computer to others may have changed: an interface has come, gone, or been plugged in,
/// an address was added or removed, or a route.
///
/// It says neither what has changed nor whether that matters: systems renew addresses and tell of that too. So the
/// caller looks for itself, not at once, since one move to another network is a dozen changes.
class NetworkNews {
public:
    virtual ~NetworkNews() = default;
    /// Calls `onChange` on `executor` after each change, once for those that come at the same time. Sends nothing,
    /// needs no privileges, and does nothing as long as nothing happens. @throws SystemError if it cannot be watched
    [[nodiscard]] virtual std::unique_ptr<NetworkWatch> watch(Executor executor, std::function<void()> onChange) = 0;
};

} // namespace orlinth::platform
