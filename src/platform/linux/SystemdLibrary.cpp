#include "platform/linux/SystemdLibrary.h"

#include "platform/SystemError.h"

namespace orlinth::platform {

ORLINTH_NOTE_DLOPEN(systemd, ORLINTH_LIBSYSTEMD, "Notifications, the journal, and reports to the service manager");

SystemdLibrary::SystemdLibrary() : library(ORLINTH_LIBSYSTEMD) {}

const SystemdLibrary& systemd() {
    static const SystemdLibrary loaded;
    return loaded;
}

bool hasSystemd() noexcept {
    try {
        static_cast<void>(systemd());
    } catch (const SystemError&) {
        return false;
    }
    return true;
}

} // namespace orlinth::platform
