#pragma once

#include "base/Time.h"
#include "platform/Task.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
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
    /// By which withdraw() finds it, and what is shown next takes its place; 0: neither. Those of newTag() are nobody
    /// else's.
    std::uint64_t tag = 0;

    /// The key that a click on the notification itself brings back.
    static constexpr const char* clickKey = "default";
    /// What such a click does, for desktops that list it; "": nothing.
    std::string clickLabel = {};
    /// It brings Orlinth's window to the front. A desktop that does so by itself is not asked for the click.
    bool isClickForWindow = false;
    std::string category = {};       ///< one of the Desktop Notifications Specification; "": none
    bool isQuiet = false;            ///< nothing pops up for it where that can be chosen; not with isUrgent
    std::optional<int> percent = {}; ///< how far what it tells of has come, 0 to 100
    bool isResident = false;         ///< it stays when a button is pressed, and can be answered again
    bool isTransient = false;        ///< it is not kept for later
};

/// What somebody has done with a notification.
struct NotificationAnswer {
    std::string key = {};   ///< of the button, or Notification::clickKey; "" when it is gone
    std::string token = {}; ///< by which a window may come to the front (XDG activation); "" if the desktop has none
    bool wasShown = true;   ///< false if it is gone without ever having been on the desktop, as far as that tells

    /// For those to whom the key is all there is.
    operator const std::string&() const noexcept { return key; } // NOLINT(google-explicit-constructor): as it says
};

/// Notifications of the user's desktop, where there is one. Calls never throw, and return at once, but isAvailable(),
/// which may take a quarter of a second.
///
/// Threading: the thread that runs the host's context, or any single one while nobody runs that.
class Notifications {
public:
    using OnAnswer = std::function<void(const NotificationAnswer&)>;

    virtual ~Notifications() = default;
    /// Whether there is somebody to show them. Looked up afresh, as a session may begin and end meanwhile.
    [[nodiscard]] virtual bool isAvailable() = 0;
    /// Shows it, in place of one that is shown with the same tag and has no answer yet, which gets none then.
    /// `onAnswer` is called once, on `executor`, with the key of the button that was pressed, or "" when it was closed,
    /// has expired, or could not be shown; of one that is resident, for each press and then with "". May be empty.
    virtual void show(Notification notification, Executor executor, OnAnswer onAnswer) = 0;
    /// Takes the notifications of this tag away, which are then answered "" as if they had been closed. Best effort.
    virtual void withdraw(std::uint64_t /*tag*/) {}

    /// A tag that no other notification of this process has; those below 2^32 are left to whoever counts by himself.
    [[nodiscard]] static std::uint64_t newTag() noexcept {
        static std::atomic<std::uint64_t> last = std::uint64_t{1} << 32;
        return ++last;
    }
};

} // namespace orlinth::platform
