#pragma once

#include "OrlinthHost/Home.h"
#include "base/Error.h"

#include <cstdint>
#include <string>
#include <system_error>

namespace orlinth::host {

/// A TCP port that could not be opened, and what is in the way.
class PortError : public Error {
public:
    enum class Case {
        inheritedUnusable,      ///< what a service manager has opened is no single listening port
        noSuchPlace,            ///< this computer has no such address or interface
        placesExcludeEachOther, ///< each of the places is free, but not all of them together
        usedByService,          ///< this user's own service has the port
        usedByOther,            ///< somebody else has it
        forbidden,              ///< this account may not open it
        other,
    };

    PortError(Case which, std::uint16_t port, std::string description)
        : Error(std::move(description)), case_(which), port_(port) {}

    [[nodiscard]] Case which() const noexcept { return case_; }
    /// The one that was wanted; 0 if any was, or none is known.
    [[nodiscard]] std::uint16_t port() const noexcept { return port_; }

private:
    Case case_;
    std::uint16_t port_;
};

/// What is in the way of a port that the system did not open for this `reason`; `description` becomes the error's text.
/// Asks the running service, if the port is in use. `home` outlives the call.
[[nodiscard]] Task<PortError> findPortTrouble(Home& home, std::uint16_t port, std::error_code reason,
                                              std::string description);

} // namespace orlinth::host
