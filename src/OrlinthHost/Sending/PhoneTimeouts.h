#pragma once

#include "platform/Network.h"

namespace orlinth::host {

/// How long a phone may take for each step of a conversation: the same for whoever sends.

/// Seconds from the connection until the phone has proved who it is.
inline constexpr double handshakeSeconds = 10;
/// Seconds without any progress behind the handshake after which nobody waits who works unattended. Somebody at the
/// phone may take two minutes to say yes.
inline constexpr double silenceSeconds = 300;
/// Seconds that a phone may take to close behind the end of a file while nothing more is acknowledged. It has to flush
/// its disk.
inline constexpr double farewellSeconds = 60;
/// A phone that is gone is noticed 25 seconds after it was last heard of, as long as the receive service takes to
/// notice a sender that is gone.
inline constexpr platform::KeepAlive phoneKeepAlive{.idleSeconds = 10, .intervalSeconds = 5, .count = 3};

} // namespace orlinth::host
