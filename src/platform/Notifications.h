#pragma once

#include "base/Time.h"
#include "platform/Task.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace orlinth::platform {

/// What a desktop notification says. Plain text; whoever shows it escapes it.
struct Notification {
    std::string title;
    std::string body;
    /// Buttons: a key that comes back, and the label.
    std::vector<std::pair<std::string, std::string>> actions = {};
    bool isUrgent = false;
    Seconds shownFor{0}; ///< how long it stays; 0: as the desktop likes
    /// By which withdraw() finds it; 0: it is never withdrawn.
    std::uint64_t tag = 0;
};

/// Notifications of the user's desktop, where there is one. Calls never throw, and return at once, but isAvailable(),
/// which may take a quarter of a second.
///
/// Threading: the thread that runs the host's context, or any single one while nobody runs that.
class Notifications {
public:
    virtual ~Notifications() = default;
    /// Whether there is somebody to show them. Looked up afresh, as a session may begin and end meanwhile.
    [[nodiscard]] virtual bool isAvailable() = 0;
    /// Shows it. `onAnswer` is called once, on `executor`, with the key of the button that was pressed, or "" when it
    /// was closed, has expired, or could not be shown. May be empty.
    virtual void show(Notification notification, Executor executor,
                      std::function<void(const std::string&)> onAnswer) = 0;
    /// Takes the notifications of this tag away, which are then answered "" as if they had been closed. Best effort.
    virtual void withdraw(std::uint64_t /*tag*/) {}
};

} // namespace orlinth::platform
