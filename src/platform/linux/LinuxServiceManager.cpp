#include "platform/ServiceManager.h"
#include "platform/SystemError.h"
#include "platform/linux/ChildProcess.h"
#include "platform/linux/LinuxFileSystem.h"
#include "platform/linux/SystemdLibrary.h"

#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <system_error>

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

bool isRestartedAfter(int status) noexcept {
    const char* const promised = std::getenv("ORLINTH_RESTART_STATUS");
    int number = -1;
    if (promised == nullptr) {
        return false;
    }
    const char* const end = promised + std::strlen(promised);
    const std::from_chars_result read = std::from_chars(promised, end, number);
    return read.ec == std::errc() && read.ptr == end && number == status;
}

std::optional<Path> programFile() {
    const Path own = "/proc/self/exe";
    try {
        const LinuxFileSystem files;
        const std::optional<FileStatus> running = files.status(own);
        std::string words; // with a zero behind each
        std::getline(std::ifstream("/proc/self/cmdline"), words, '\0');
        for (const Path& candidate : {Path(words), files.resolveLinks(own)}) { // a link may lead to the next version
            const std::optional<FileStatus> found = candidate.is_absolute() ? files.status(candidate) : std::nullopt;
            if (running && found && isSameFile(*running, *found)) {
                return candidate;
            }
        }
    } catch (const SystemError&) {
        return std::nullopt;
    }
    return std::nullopt;
}

bool startSleepingService(const std::string& socketUnit, const std::string& serviceUnit, std::chrono::seconds limit) {
    return hasDone("is-active", socketUnit, limit) && hasDone("start", serviceUnit, limit);
}

} // namespace orlinth::platform
