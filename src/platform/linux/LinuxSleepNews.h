#pragma once

#include "platform/SleepNews.h"
#include "platform/linux/SessionBus.h"

namespace orlinth::platform {

/// The signal PrepareForSleep of systemd-logind, and of elogind, on the system's bus: it says false when the computer
/// has woken up. Without that bus or libsystemd, and once the bus has gone, nothing is told; nobody looks for it again,
/// which would wake the computer up for nothing.
///
/// Who has sent the signal is not looked at. Whoever may speak on the system's bus can make a service look at its
/// network once, and that is all.
class LinuxSleepNews final : public SleepNews {
public:
    /// `environment` says where the bus is as if it were the session's: systemBusEnvironment().
    explicit LinuxSleepNews(BusEnvironment environment) : environment_(environment) {}

    [[nodiscard]] std::unique_ptr<SleepWatch> watch(Executor executor, std::function<void()> onWake) override;

private:
    BusEnvironment environment_;
};

/// The environment of this process with the system's bus in place of the session's: DBUS_SYSTEM_BUS_ADDRESS, or where
/// it always is.
[[nodiscard]] const char* systemBusEnvironment(const char* name);

} // namespace orlinth::platform
