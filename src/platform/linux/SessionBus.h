#pragma once

#include "platform/linux/Freer.h"
#include "platform/linux/SystemdLibrary.h"

#include <chrono>
#include <memory>
#include <string>

namespace orlinth::platform {

/// Looks up an environment variable, as getenv does.
using BusEnvironment = const char* (*)(const char* name);

namespace detail {

inline void closeBus(sd_bus* bus) noexcept {
    systemd().sd_bus_close_unref(bus);
}
inline void freeBus(sd_bus* bus) noexcept {
    systemd().sd_bus_unref(bus);
}
inline void freeBusSlot(sd_bus_slot* slot) noexcept {
    systemd().sd_bus_slot_unref(slot);
}
inline void freeBusMessage(sd_bus_message* message) noexcept {
    systemd().sd_bus_message_unref(message);
}

} // namespace detail

/// A connection to the session's bus. Used on one thread.
using SessionBusRef = std::unique_ptr<sd_bus, detail::Freer<detail::closeBus>>;

/// Something asked of a connection, which it ends with. To be let go of before the connection, as it keeps that.
using BusSlotRef = std::unique_ptr<sd_bus_slot, detail::Freer<detail::freeBusSlot>>;
using BusMessageRef = std::unique_ptr<sd_bus_message, detail::Freer<detail::freeBusMessage>>;

/// Where the session's bus is: DBUS_SESSION_BUS_ADDRESS, or the socket "bus" in XDG_RUNTIME_DIR; "" where neither is
/// set.
[[nodiscard]] std::string sessionBusAddress(BusEnvironment environment);

/// Begins to connect to the session's bus; nothing where there is none, or no libsystemd. Does not wait: what is asked
/// of the connection goes out once the bus has said hello. Calls fail when the bus takes longer than `answerLimit`.
[[nodiscard]] SessionBusRef openSessionBus(BusEnvironment environment, std::chrono::microseconds answerLimit);

/// Does what there is to do, without waiting. Returns whether the connection is still one.
[[nodiscard]] bool processSessionBus(sd_bus* bus);

/// Waits on the caller's thread until there is something to do on the bus, or until `until`. May return early.
void waitForSessionBus(sd_bus* bus, std::chrono::steady_clock::time_point until);

/// Whether the bus itself has sent it. A rule for messages of the bus is no guard: any program can send to us alone,
/// signals always, and answers on many buses.
[[nodiscard]] bool isFromBus(sd_bus_message* message) noexcept;

/// For calls whose answer does not matter.
int ignoreBusAnswer(sd_bus_message* message, void* data, sd_bus_error* error);

} // namespace orlinth::platform
