#include "platform/ServiceManager.h"
#include "platform/SystemError.h"
#include "platform/linux/ChildProcess.h"
#include "platform/linux/SystemdLibrary.h"

#include <cstdint>
#include <cstdlib>

namespace orlinth::platform {
namespace {

/// Whether systemctl has done it, for the user's own service manager.
bool hasDone(const char* verb, const std::string& unit, std::chrono::seconds limit) {
    try {
        const ChildResult result = runChild({.name = "systemctl",
                                             .package = "systemd",
                                             .arguments = {"--user", "--quiet", verb, unit},
                                             .input = {},
                                             .deadline = limit});
        return result.status == 0;
    } catch (const SystemError&) {
        return false; // without a service manager nobody keeps a socket open
    }
}

/// Whether there is a manager to talk to: it says so in a variable. Without one nothing is loaded.
bool isManaged(const char* variable) noexcept {
    return std::getenv(variable) != nullptr && hasSystemd();
}

/// A manager that is gone, or does not listen, keeps no service from its work: the result is not looked at.
void tellManager(const char* state) noexcept {
    if (isManaged("NOTIFY_SOCKET")) {
        static_cast<void>(systemd().sd_notify(0, state));
    }
}

} // namespace

void tellServiceReady() noexcept {
    tellManager("READY=1");
}

void tellServiceStatus(std::size_t phones) noexcept {
    if (isManaged("NOTIFY_SOCKET")) {
        static_cast<void>(
            systemd().sd_notifyf(0, "STATUS=Receiving from %zu paired phone%s.", phones, phones == 1 ? "" : "s"));
    }
}

void tellServiceStopping() noexcept {
    tellManager("STOPPING=1");
}

std::optional<Seconds> serviceWatchdogInterval() noexcept {
    std::uint64_t limit = 0;
    const bool isWanted = isManaged("WATCHDOG_USEC") && systemd().sd_watchdog_enabled(0, &limit) > 0;
    return isWanted ? std::optional(Seconds(std::chrono::duration<std::uint64_t, std::micro>(limit))) : std::nullopt;
}

void tellServiceAlive() noexcept {
    tellManager("WATCHDOG=1");
}

bool startSleepingService(const std::string& socketUnit, const std::string& serviceUnit, std::chrono::seconds limit) {
    return hasDone("is-active", socketUnit, limit) && hasDone("start", serviceUnit, limit);
}

} // namespace orlinth::platform
