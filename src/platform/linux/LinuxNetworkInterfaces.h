#pragma once

#include "platform/NetworkInterfaces.h"

namespace orlinth::platform {

/// The interfaces as getifaddrs(3) lists them: link-layer addresses come as AF_PACKET entries.
class LinuxNetworkInterfaces final : public NetworkInterfaces {
public:
    [[nodiscard]] std::vector<InterfaceAddress> list() const override;
    [[nodiscard]] std::string hostName() const override;
};

} // namespace orlinth::platform
