#pragma once

#include "platform/UserServices.h"
#include "platform/linux/SessionBus.h"

#include <chrono>

namespace orlinth::platform {

/// Services that the session's bus starts by their name (it asks systemd, or runs the program itself), and that the
/// user's systemd manages. Each call has a connection of its own.
class LinuxUserServices final : public UserServices {
public:
    /// For one answer of the bus or the service manager, and for a service that is being started.
    static constexpr std::chrono::seconds usualLimit{10};

    /// `environment` says where the session's bus is. A test may be in a hurry.
    explicit LinuxUserServices(BusEnvironment environment, std::chrono::milliseconds limit = usualLimit)
        : environment_(environment), limit_(limit) {}

    [[nodiscard]] ServiceStart start(const UserService& service) override;
    [[nodiscard]] ServiceStart enable(const UserService& service) override;

private:
    BusEnvironment environment_;
    std::chrono::milliseconds limit_;
};

} // namespace orlinth::platform
