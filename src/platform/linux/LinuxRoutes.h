#pragma once

#include "platform/Routes.h"

namespace orlinth::platform {

/// The kernel's answer to RTM_GETROUTE (rtnetlink(7)), which `ip route get` asks for too.
class LinuxRoutes final : public Routes {
public:
    [[nodiscard]] std::variant<Route, NoRoute> to(const IpAddress& address) const override;
    [[nodiscard]] std::optional<IpAddress> gatewayBy(const std::string& interface) const override;
};

} // namespace orlinth::platform
