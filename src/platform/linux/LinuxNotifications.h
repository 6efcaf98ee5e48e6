#pragma once

#include "platform/Notifications.h"

#include <memory>

namespace orlinth::platform {

/// Notifications by the desktop's daemon (Desktop Notifications Specification 1.2) on the session's bus.
///
/// An answer counts only if it comes from the connection that shows the notification, which is known by the name that
/// the bus gives to it. Whoever owns the daemon's name on the bus is the daemon: what the bus lets any program do there
/// is not for us to judge.
///
/// Texts are made fit for people here (forDisplay()), whoever has chosen them.
///
/// Threading: any thread. The bus is spoken to on a thread of its own, which starts with the first call and is joined
/// on destruction; what has no answer by then is answered "". A call of isAvailable() may take as long as the bus
/// takes to answer, at most a quarter of a second.
class LinuxNotifications final : public Notifications {
public:
    using Environment = const char* (*)(const char* name);

    /// `environment` (as getenv) says where the bus is: DBUS_SESSION_BUS_ADDRESS, or the socket "bus" in
    /// XDG_RUNTIME_DIR.
    explicit LinuxNotifications(Environment environment);
    ~LinuxNotifications() override;
    LinuxNotifications(const LinuxNotifications&) = delete;
    LinuxNotifications& operator=(const LinuxNotifications&) = delete;

    [[nodiscard]] bool isAvailable() override;
    void show(Notification notification, Executor executor, std::function<void(const std::string&)> onAnswer) override;
    void withdraw(std::uint64_t tag) override;

private:
    class Worker;
    std::unique_ptr<Worker> worker_;
};

} // namespace orlinth::platform
