#pragma once

#include "platform/NetworkNews.h"

namespace orlinth::platform {

/// What the kernel tells over rtnetlink(7) of links, addresses of both kinds, and IPv4 routes. News that are lost,
/// because too many came at once, count as news.
class LinuxNetworkNews final : public NetworkNews {
public:
    [[nodiscard]] std::unique_ptr<NetworkWatch> watch(Executor executor, std::function<void()> onChange) override;
};

} // namespace orlinth::platform
