#include "platform/ServiceManager.h"

#include <systemd/sd-daemon.h>

namespace orlinth::platform {

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

} // namespace orlinth::platform
