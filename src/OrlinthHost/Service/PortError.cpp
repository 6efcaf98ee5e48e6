#include "OrlinthHost/Service/PortError.h"

#include "OrlinthHost/Service/ServiceControlClient.h"

#include <optional>
#include <utility>

namespace orlinth::host {

Task<PortError> findPortTrouble(Home& home, std::uint16_t port, std::error_code reason, std::string description) {
    PortError::Case which = PortError::Case::other;
    if (reason == std::errc::permission_denied) {
        which = PortError::Case::forbidden;
    } else if (reason == std::errc::address_in_use) {
        const std::optional<std::uint16_t> own = co_await findServicePort(home);
        which = own == port ? PortError::Case::usedByService : PortError::Case::usedByOther;
    }
    co_return PortError(which, port, std::move(description));
}

} // namespace orlinth::host
