#pragma once

#include "platform/Network.h"

namespace orlinth::host {

/// How long a phone may take for each step of a conversation: the same for whoever sends.

/// From the connection until the phone has proved who it is.
inline constexpr Seconds handshakeLimit = 10s;
/// The time without any progress behind the handshake after which nobody waits who works unattended. Somebody at the
/// phone may take two minutes to say yes.
inline constexpr Seconds silenceLimit = 5min;
/// How long a phone may take to close behind the end of a file while nothing more is acknowledged. It has to flush
/// its disk.
inline constexpr Seconds farewellLimit = 60s;
/// A phone that is gone is noticed 25 seconds after it was last heard of, as long as the receive service takes to
/// notice a sender that is gone.
inline constexpr platform::KeepAlive phoneKeepAlive{.idle = 10s, .interval = 5s, .count = 3};

} // namespace orlinth::host
