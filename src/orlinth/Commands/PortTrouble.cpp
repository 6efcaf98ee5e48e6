#include "orlinth/Commands/PortTrouble.h"

#include "OrlinthHost/Service/PortError.h"
#include "orlinth/Reporting/Hints.h"

#include <utility>

namespace orlinth::cli {

host::HostError portTrouble(Host& host, std::uint16_t port, const std::error_code& reason, std::string text) {
    const host::PortError error = host.tasks.run(host::findPortTrouble(host, port, reason, std::move(text)));
    return host::HostError(error.description(), hintForPort(error));
}

} // namespace orlinth::cli
