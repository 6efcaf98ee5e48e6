#pragma once

#include "platform/Task.h"

namespace orlinth::host {

class ServiceApi;

/// Something by which the running service can be seen and asked, besides its control socket. A program gives a service
/// as many as it likes. On the home's executor.
class ServiceFace {
public:
    virtual ~ServiceFace() = default;

    /// Shows the service from now on, before it listens. Returns once it can be found, or cannot be for now: a face
    /// that does not work keeps no service from its work. `api` stays until finish() has returned.
    /// @throws platform::Cancelled
    [[nodiscard]] virtual Task<> start(ServiceApi& api) = 0;
    /// The service ends: nothing more is taken in. start() need not have been called.
    virtual void stop() = 0;
    /// Shows it no more, and waits for what is under way. The last call; start() need not have been called.
    [[nodiscard]] virtual Task<> finish() = 0;
};

} // namespace orlinth::host
