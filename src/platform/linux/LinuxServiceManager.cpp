#include "platform/ServiceManager.h"
#include "platform/SystemError.h"
#include "platform/linux/ChildProcess.h"

#include <systemd/sd-daemon.h>

#include <cstdint>

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

} // namespace

// A service manager that is gone, or does not listen, keeps no service from its work: results are not looked at.

void tellServiceReady() noexcept {
    static_cast<void>(::sd_notify(0, "READY=1"));
}

void tellServiceStatus(std::size_t phones) noexcept {
    static_cast<void>(::sd_notifyf(0, "STATUS=Receiving from %zu paired phone%s.", phones, phones == 1 ? "" : "s"));
}

void tellServiceStopping() noexcept {
    static_cast<void>(::sd_notify(0, "STOPPING=1"));
}

std::optional<double> serviceWatchdogSeconds() noexcept {
    constexpr double microseconds = 1e6;
    std::uint64_t limit = 0;
    const bool isWanted = ::sd_watchdog_enabled(0, &limit) > 0;
    return isWanted ? std::optional(static_cast<double>(limit) / microseconds) : std::nullopt;
}

void tellServiceAlive() noexcept {
    static_cast<void>(::sd_notify(0, "WATCHDOG=1"));
}

bool startSleepingService(const std::string& socketUnit, const std::string& serviceUnit, std::chrono::seconds limit) {
    return hasDone("is-active", socketUnit, limit) && hasDone("start", serviceUnit, limit);
}

} // namespace orlinth::platform
