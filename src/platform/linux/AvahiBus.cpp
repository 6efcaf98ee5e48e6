#include "platform/linux/AvahiBus.h"

#include "platform/linux/Freer.h"
#include "platform/linux/SessionBus.h"

#include <avahi-common/error.h>

#include <array>
#include <memory>
#include <poll.h>

namespace orlinth::platform {
namespace {

using SteadyClock = std::chrono::steady_clock;

/// Waits for something to do on the bus. @returns whether there is still time
bool waitForBus(sd_bus* bus, int interruption, SteadyClock::time_point deadline) noexcept {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - SteadyClock::now()).count();
    const int events = systemd().sd_bus_get_events(bus);
    if (left <= 0 || events < 0) {
        return false;
    }
    std::array<pollfd, 2> both{
        {{systemd().sd_bus_get_fd(bus), static_cast<short>(events), 0}, {interruption, POLLIN, 0}}};
    static_cast<void>(::poll(both.data(), both.size(), static_cast<int>(left)));
    return both[1].revents == 0;
}

/// An Avahi error code.
int greet(sd_bus* bus, int interruption, SteadyClock::time_point deadline) noexcept {
    for (;;) {
        const int ready = systemd().sd_bus_is_ready(bus);
        if (ready != 0) {
            return ready > 0 ? AVAHI_OK : AVAHI_ERR_NO_DAEMON;
        }
        const int done = systemd().sd_bus_process(bus, nullptr);
        if (done < 0) {
            return AVAHI_ERR_NO_DAEMON;
        }
        if (done == 0 && !waitForBus(bus, interruption, deadline)) {
            return AVAHI_ERR_TIMEOUT;
        }
    }
}

} // namespace

int askSystemBus(int interruption, std::chrono::milliseconds limit) noexcept {
    sd_bus* opened = nullptr;
    if (!hasSystemd() || systemd().sd_bus_open_system(&opened) < 0) { // begins to connect, and does not wait
        return AVAHI_ERR_NO_DAEMON;
    }
    const std::unique_ptr<sd_bus, detail::Freer<detail::closeBus>> bus(opened);
    return greet(bus.get(), interruption, SteadyClock::now() + limit);
}

} // namespace orlinth::platform
