#pragma once

#include "platform/linux/SessionBus.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace orlinth::platform {

/// The user's own service manager (systemd --user), which desktops tell what their variables are.
class UserManager {
public:
    /// How long it may take to answer.
    static constexpr std::chrono::milliseconds answerLimit{500};
    /// More of it is not read.
    static constexpr std::size_t maxVariables = 4096;

    /// `environment` says where the session's bus is.
    explicit UserManager(BusEnvironment environment) : environment_(environment) {}

    /// What it gives to the programs that it starts, "NAME=value" each. Nothing where there is no such manager, no bus
    /// or no libsystemd, or if it does not answer in time. Starts nothing. Any thread; blocks for up to `answerLimit`.
    [[nodiscard]] std::optional<std::vector<std::string>> variables() const;

    /// Whether it has started this process itself, and not a program that it has started.
    [[nodiscard]] bool hasStartedUs() const;

private:
    BusEnvironment environment_;
};

} // namespace orlinth::platform
