#pragma once

#include "platform/linux/SessionBus.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace orlinth::platform {

/// How programs reach the desktop, in the words of its environment variables; "" for what is not set.
struct DesktopSession {
    std::string waylandDisplay = {}; ///< WAYLAND_DISPLAY
    std::string display = {};        ///< DISPLAY
    std::string xAuthority = {};     ///< XAUTHORITY
    std::string runtimeFolder = {};  ///< XDG_RUNTIME_DIR

    /// Whether there is a display at all.
    [[nodiscard]] bool isThere() const noexcept { return !waylandDisplay.empty() || !display.empty(); }
    friend bool operator==(const DesktopSession&, const DesktopSession&) = default;
};

/// What this process was told of it. `environment` answers like getenv().
[[nodiscard]] DesktopSession desktopSession(const std::function<const char*(const char*)>& environment);

/// The desktop as it is now. What this process was told counts, unless that is nothing, or the user's service manager
/// has started this process: then the manager is asked, which desktops tell when they begin. So a service finds the
/// desktop that has begun after it, and the next one. Any thread; may block for UserManager::answerLimit.
[[nodiscard]] DesktopSession currentDesktopSession(BusEnvironment environment);

/// For a program that is to run there: the variables that are set, and their values.
[[nodiscard]] std::vector<std::pair<std::string, std::string>> variablesOf(const DesktopSession& session);

} // namespace orlinth::platform
