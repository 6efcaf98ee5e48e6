#pragma once

#include "orlinth/Program/Host.h"
#include "platform/Network.h"

#include <memory>

namespace orlinth::cli {

/// host::NearbyListener for a command that waits for one connection: tells whom it has turned away, as messages, a few
/// a minute. `host` outlives the listener.
[[nodiscard]] std::unique_ptr<platform::Listener> nearbyOnly(Host& host, std::unique_ptr<platform::Listener> listener);

} // namespace orlinth::cli
