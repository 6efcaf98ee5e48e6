#pragma once

#include "orlinth/Program/Host.h"

#include <cstdint>
#include <string>
#include <system_error>

namespace orlinth::cli {

/// The failure to open a TCP port: `text` as it is, and a hint that fits the reason, which may be that this user's own
/// service has the port. Not while a task runs: the service is asked.
[[nodiscard]] host::HostError portTrouble(Host& host, std::uint16_t port, const std::error_code& reason,
                                          std::string text);

} // namespace orlinth::cli
