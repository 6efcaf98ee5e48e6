#pragma once

#include <string_view>
#include <sys/types.h>

namespace orlinth::platform {

/// Whether a program works in a sandbox that its user has put it in.
enum class Confinement {
    none,
    sandboxed, ///< by Flatpak or Snap
    unknown,   ///< it cannot be looked at, or has gone
};

/// What the kernel tells of this process: "/.flatpak-info" in its root folder, as Flatpak puts it there, also for the
/// proxy through which its programs reach the bus, and the names of its control groups. Best effort: the number may be
/// another process's by now. Blocks as long as the process's root folder does; any thread.
[[nodiscard]] Confinement confinementOf(pid_t process) noexcept;

namespace detail {

/// Whether one of the control groups is that of a snap: `content` is that of /proc/PID/cgroup.
[[nodiscard]] bool namesSnap(std::string_view content) noexcept;

} // namespace detail
} // namespace orlinth::platform
