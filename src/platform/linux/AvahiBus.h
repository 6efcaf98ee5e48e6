#pragma once

#include <chrono>

namespace orlinth::platform {

/// Connects to the system bus, waits until it has said hello, and hangs up. Blocks, for `limit` at most, and no longer
/// than until the descriptor `interruption` can be read.
/// @returns AVAHI_OK; AVAHI_ERR_TIMEOUT if it stayed silent; AVAHI_ERR_NO_DAEMON if there is none
[[nodiscard]] int askSystemBus(int interruption, std::chrono::milliseconds limit) noexcept;

} // namespace orlinth::platform
