#include "OrlinthHost/Service/ServiceLock.h"

#include "OrlinthHost/HostError.h"
#include "platform/LockWait.h"
#include "platform/SystemError.h"

namespace orlinth::host {

namespace {

/// Who looks whether a service runs has the lock for an instant.
constexpr Seconds patience = 100ms;

std::unique_ptr<platform::File> openLock(const Home& home, const platform::Path& path) {
    return home.system.files.open(path, platform::OpenMode::openOrCreate, platform::Links::follow, 0600);
}

} // namespace

Task<ServiceLock> ServiceLock::take(Home& home) {
    const platform::Path path = home.dataDirectory() / fileName;
    std::unique_ptr<platform::File> file;
    bool isLocked = false;
    try {
        file = openLock(home, path);
        isLocked = co_await platform::lockWithin(home.system.storage(), *file, path, patience);
    } catch (const platform::SystemError& error) {
        throw HostError("cannot lock " + path.string() + ": " + error.description(),
                        "Make this file and its folder writable for this account.");
    }
    if (!isLocked) {
        throw HostError("the receive service is already running",
                        "One serves all phones. Another identity needs another data folder (XDG_DATA_HOME).");
    }
    co_return ServiceLock(std::move(file));
}

bool ServiceLock::isHeld(const Home& home) {
    const platform::Path path = home.dataDirectory() / fileName;
    try {
        return home.system.files.exists(path) && !home.system.files.open(path, platform::OpenMode::write)->tryLock();
    } catch (const platform::SystemError& error) {
        home.system.log.write(platform::LogLevel::debug, "com.tarvinex.orlinth", "control",
                              "cannot look at " + path.string() + ": " + error.description());
        return false;
    }
}

} // namespace orlinth::host
