#pragma once

#include "platform/Clock.h"
#include "platform/Network.h"

#include <memory>
#include <string>

namespace orlinth {

/// What openConnection() makes of a refusal: the device is there, but nothing listens on the port.
enum class WhenRefused {
    fail,    ///< report it at once
    tryAgain ///< wait for the port, as for a phone that is just waking up
};

/// Opens one TCP connection, whose work runs on `queue`, and returns it once it is established.
///
/// `host` is a name or an address literal; `timeout`: zero or less for no deadline. The deadline covers
/// resolving the name and trying each of its addresses. While the host cannot be reached (no answer to ARP, no route,
/// no link) or its name does not resolve, it is tried again every half second until the deadline: a phone that sleeps
/// or has just left the network looks like that for a while. Without a deadline each failure is reported at once.
/// The caller owns what it gets. `network` and `clock` outlive the call.
/// @throws SendError::network: "connect timed out" (reason timedOut; the cause is the last try's failure, if one
///         failed); "invalid port 0"; or at once, with the reason, the system's words ("Connection refused")
[[nodiscard]] Task<std::unique_ptr<platform::Stream>> openConnection(platform::Network& network, platform::Clock& clock,
                                                                     std::string host, std::uint16_t port,
                                                                     Executor queue, Seconds timeout,
                                                                     WhenRefused whenRefused = WhenRefused::fail);

} // namespace orlinth
