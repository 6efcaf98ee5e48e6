#include "platform/linux/SessionBus.h"

#include "base/Hex.h"

#include <algorithm>
#include <cstdint>
#include <poll.h>
#include <string_view>

namespace orlinth::platform {
namespace {

using SteadyClock = std::chrono::steady_clock;

/// In a D-Bus address every byte but these is written as %XX.
std::string escapedForAddress(std::string_view path) {
    std::string escaped;
    for (const char character : path) {
        const bool isPlain = (character >= '0' && character <= '9') || (character >= 'A' && character <= 'Z') ||
                             (character >= 'a' && character <= 'z') ||
                             std::string_view("-_/.\\").find(character) != std::string_view::npos;
        if (isPlain) {
            escaped += character;
        } else {
            appendPercentEncoded(escaped, static_cast<unsigned char>(character), HexCase::lower);
        }
    }
    return escaped;
}

} // namespace

std::string sessionBusAddress(BusEnvironment environment) {
    if (const char* address = environment("DBUS_SESSION_BUS_ADDRESS"); address != nullptr && *address != '\0') {
        return address;
    }
    if (const char* folder = environment("XDG_RUNTIME_DIR"); folder != nullptr && *folder != '\0') {
        return "unix:path=" + escapedForAddress(folder) + "/bus";
    }
    return {};
}

SessionBusRef openSessionBus(BusEnvironment environment, std::chrono::microseconds answerLimit) {
    const std::string address = sessionBusAddress(environment);
    sd_bus* made = nullptr;
    if (address.empty() || !hasSystemd() || systemd().sd_bus_new(&made) < 0) {
        return nullptr;
    }
    SessionBusRef bus(made);
    const bool isOpen =
        systemd().sd_bus_set_address(made, address.c_str()) >= 0 && systemd().sd_bus_set_bus_client(made, 1) >= 0 &&
        systemd().sd_bus_set_method_call_timeout(made, static_cast<std::uint64_t>(answerLimit.count())) >= 0 &&
        systemd().sd_bus_start(made) >= 0;
    return isOpen ? std::move(bus) : nullptr;
}

bool processSessionBus(sd_bus* bus) {
    int result = 1;
    while (result > 0) {
        result = systemd().sd_bus_process(bus, nullptr);
    }
    return result == 0 && systemd().sd_bus_is_open(bus) > 0;
}

void waitForSessionBus(sd_bus* bus, SteadyClock::time_point until) {
    const int wanted = systemd().sd_bus_get_events(bus);
    pollfd event{.fd = systemd().sd_bus_get_fd(bus),
                 .events = static_cast<short>(std::max(wanted, 0)),
                 .revents = 0};              // -1 is skipped
    std::uint64_t microseconds = UINT64_MAX; // of CLOCK_MONOTONIC, which is the steady clock
    if (systemd().sd_bus_get_timeout(bus, &microseconds) >= 0 && microseconds != UINT64_MAX) {
        until = std::min(until, SteadyClock::time_point(std::chrono::microseconds(microseconds)));
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - SteadyClock::now());
    static_cast<void>(::poll(&event, 1, static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, 60'000))));
}

bool isFromBus(sd_bus_message* message) noexcept {
    const char* const sender = systemd().sd_bus_message_get_sender(message);
    return sender != nullptr && std::string_view(sender) == "org.freedesktop.DBus";
}

int ignoreBusAnswer(sd_bus_message*, void*, sd_bus_error*) {
    return 0;
}

} // namespace orlinth::platform
