#pragma once

#include "base/Time.h"
#include "platform/FileSystem.h"

#include <cstddef>
#include <optional>
#include <string>

/// What a service tells whoever manages it (systemd, or anybody who has set NOTIFY_SOCKET as sd_notify(3) says).
/// Without one the calls do nothing, and none fails. On the main thread.
namespace orlinth::platform {

/// The service does its work from now on.
void tellServiceReady() noexcept;
/// For people who ask how the service is: how many phones it serves.
void tellServiceStatus(std::size_t phones) noexcept;
void tellServiceStopping() noexcept;

/// How often the manager wants to hear that the service is alive; nothing if it does not.
[[nodiscard]] std::optional<Seconds> serviceWatchdogInterval() noexcept;
/// The service is alive: to be said more often than that. Any thread.
void tellServiceAlive() noexcept;

/// Whether whoever manages the service starts it anew if it ends with this status: it says so by giving the service
/// ORLINTH_RESTART_STATUS, the status in decimal.
[[nodiscard]] bool isRestartedAfter(int status) noexcept;
/// The file of the program that runs, by the name under which it was started if that is a whole path; nothing if that
/// cannot be found out, or the file has lost its name already. To be called when the program starts.
[[nodiscard]] std::optional<Path> programFile();

/// Starts the service of the user's own service manager for which that keeps a socket open. Returns whether it runs;
/// false also if the socket is not kept open, or nobody manages services here. Any thread; blocks up to `limit` twice.
[[nodiscard]] bool startSleepingService(const std::string& socketUnit, const std::string& serviceUnit,
                                        std::chrono::seconds limit);

} // namespace orlinth::platform
