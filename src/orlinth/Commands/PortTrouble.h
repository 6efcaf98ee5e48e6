#pragma once

#include "orlinth/Program/Host.h"

#include <cstdint>
#include <optional>
#include <string>
#include <system_error>

namespace orlinth::cli {

/// The failure to open a TCP port: `text` as it is, and a hint that fits the reason, which may be that this user's own
/// service has the port. Not while a task runs: the service is asked.
[[nodiscard]] host::HostError portTrouble(Host& host, std::uint16_t port, const std::error_code& reason,
                                          std::string text);

/// The running service's port; nothing if none runs, or if it does not say. Not while a task runs.
[[nodiscard]] std::optional<std::uint16_t> portOfService(Host& host);

} // namespace orlinth::cli
