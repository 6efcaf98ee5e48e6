#pragma once

#include "platform/System.h"

#include <memory>
#include <string>

namespace orlinth {

/// Opens one TCP connection, whose work runs on `queue`, and returns it once it is established.
///
/// `host` is a name or an address literal; `timeout` are seconds, zero or less for no deadline. The deadline covers
/// resolving the name and trying each of its addresses. The caller owns what it gets. `system` outlives the call.
/// @throws SendError::network: "invalid port 0", "connect timed out", "connection cancelled", or the system's words
///         ("Connection refused").
[[nodiscard]] Task<std::unique_ptr<platform::Stream>>
openConnection(platform::System& system, std::string host, std::uint16_t port, Executor queue, double timeout);

} // namespace orlinth
