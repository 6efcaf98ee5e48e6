#pragma once

#include <string>

namespace orlinth::host {

/// What happens to the service itself, for whoever tells it to people. Called on the home's executor; no call throws.
class ServiceEvents {
public:
    virtual ~ServiceEvents() = default;

    /// The control socket cannot be opened, or has failed: nobody can ask the service or borrow its port.
    virtual void controlFailed(const std::string& problem) = 0;
    /// A pairing has the port.
    virtual void portLent() = 0;
    /// It has given it back.
    virtual void portReturned() = 0;
    /// The port cannot be opened again yet; that is tried until it works.
    virtual void portMissing(const std::string& problem) = 0;
};

} // namespace orlinth::host
