#pragma once

#include "OrlinthHost/Home.h"
#include "OrlinthHost/Service/PortError.h"
#include "platform/Network.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace orlinth::host {

/// The port of the receive service: where it is open, and for whom.
///
/// Threading: adoptInherited() and open() on the home's executor; listen() and listenForPairing() on any that may
/// listen. Owns no socket.
class ServicePort {
public:
    struct Settings {
        std::uint16_t number = 0;        ///< 0: any free one
        std::vector<std::string> places; ///< ListenOptions::places; none: everywhere. Repetitions count once
        bool isPublic = false;           ///< lets in connections from outside this computer's networks too
    };
    /// Called with the endpoint of each one that was turned away because of where it comes from, on the home's
    /// executor, also soon after this has gone.
    using OnFarAway = std::function<void(const std::string& remoteEndpoint)>;

    /// `home` outlives this, and so does what `onFarAway` refers to, until the executor has had its turn.
    ServicePort(Home& home, Settings settings, OnFarAway onFarAway);

    /// The port that a service manager has opened, if any: it is used from now on, whatever the settings say.
    /// @throws PortError
    std::optional<std::uint16_t> adoptInherited();

    /// Opens the port for the first time. @throws PortError
    [[nodiscard]] Task<std::unique_ptr<platform::Listener>> open();

    /// The port, for those who may connect to it; its number is that of `options`. For Receiver::openListener.
    /// @throws SystemError
    [[nodiscard]] std::unique_ptr<platform::Listener> listen(platform::ListenOptions options, Executor executor) const;

    /// The same as one socket that can be lent: that of the first of the places that a phone reaches best, which is an
    /// IPv4 address or an interface that is not for this computer alone; then one that is; then IPv6. Lets in
    /// everybody.
    /// @throws SystemError
    [[nodiscard]] std::unique_ptr<platform::Listener> listenForPairing(platform::ListenOptions options,
                                                                       Executor executor) const;

    /// The wanted one, or the inherited one; 0: any.
    [[nodiscard]] std::uint16_t number() const noexcept { return settings_.number; }

private:
    [[nodiscard]] bool doPlacesExcludeEachOther() const;

    Home& home_;
    Settings settings_;
    OnFarAway onFarAway_;
};

} // namespace orlinth::host
