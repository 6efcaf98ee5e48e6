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
/// Texts are made fit for people here (forDisplay()), whoever has chosen them. What takes the place of something that
/// is still on its way to the daemon waits for that, so that nothing is shown twice.
///
/// Threading: the one thread that runs the executor's context, or any single one while nobody runs that. The executor
/// looks after the connection to the bus, which begins with the first call and keeps the context running until close().
/// No call waits but these, a quarter of a second at most: isAvailable() until the bus has answered, unless it still
/// owes the answer before; close() and the destructor until the daemon has been given what was shown just before.
class LinuxNotifications final : public Notifications {
public:
    using Environment = const char* (*)(const char* name);

    /// `environment` (as getenv) says where the bus is: DBUS_SESSION_BUS_ADDRESS, or the socket "bus" in
    /// XDG_RUNTIME_DIR.
    LinuxNotifications(const Executor& executor, Environment environment);
    ~LinuxNotifications() override;
    LinuxNotifications(const LinuxNotifications&) = delete;
    LinuxNotifications& operator=(const LinuxNotifications&) = delete;

    [[nodiscard]] bool isAvailable() override;
    void show(Notification notification, Executor executor, OnAnswer onAnswer) override;
    void withdraw(std::uint64_t tag) override;

    /// Nobody waits for an answer any more: what has none is answered "". What is shown later reaches the daemon as
    /// well, from within the call.
    void close();

private:
    class Worker;
    std::shared_ptr<Worker> worker_;
};

} // namespace orlinth::platform
