#pragma once

#include "base/Mutex.h"
#include "base/Time.h"

#include <cstdint>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <utility>

namespace orlinth::platform {

/// What the compositor of a Wayland session lets programs do that have no window on the screen. It is asked once: its
/// answer holds for as long as the same socket lies at the same place.
///
/// Threading: any thread. Calls block for up to `limit`.
class WaylandSession {
public:
    /// A compositor answers within a millisecond.
    static constexpr std::chrono::milliseconds limit = 1s;

    enum class Clipboard {
        open,     ///< any program may read and write the clipboard, also in the background
        guarded,  ///< only the program whose window has the focus may
        noAnswer, ///< there is no compositor, or it does not say; the next call asks again
    };

    /// Of the compositor at this socket.
    [[nodiscard]] Clipboard clipboard(const std::string& socketPath);

    /// Where WAYLAND_DISPLAY and XDG_RUNTIME_DIR say that it is; "" if they do not say so.
    [[nodiscard]] static std::string socketPath(const std::string& display, const std::string& runtimeFolder);

private:
    /// Another socket in the place of an old one has other numbers.
    struct Socket {
        std::string path;
        dev_t device = 0;
        ino_t number = 0;
        std::int64_t changedSeconds = 0;
        std::int64_t changedNanoseconds = 0;
        friend bool operator==(const Socket&, const Socket&) = default;
    };

    [[nodiscard]] static std::optional<Socket> identify(const std::string& path);

    Mutex lock_; ///< held for an assignment
    std::optional<std::pair<Socket, Clipboard>> known_ ORLINTH_GUARDED_BY(lock_);
};

} // namespace orlinth::platform
