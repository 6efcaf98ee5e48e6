#pragma once

#include "platform/Network.h"

namespace orlinth::host {

/// How connections to phones are watched: a phone that is gone is noticed 25 seconds after it was last heard of.
/// As long as the receive service takes to notice a sender that is gone.
inline constexpr platform::KeepAlive phoneKeepAlive{.idleSeconds = 10, .intervalSeconds = 5, .count = 3};

} // namespace orlinth::host
