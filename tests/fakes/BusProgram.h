#pragma once

#include "fakes/PrivateBus.h"

#include <systemd/sd-bus.h>

#include <stdexcept>
#include <string>

namespace orlinth::fakes {

/// The bus itself, as one of those on it.
inline constexpr const char* busName = "org.freedesktop.DBus";
inline constexpr const char* busPath = "/org/freedesktop/DBus";

/// @throws std::runtime_error for a result of sd-bus that is an error
inline void requireBus(int result) {
    if (result < 0) {
        throw std::runtime_error("a test's connection to the bus fails: " + std::to_string(result));
    }
}

/// Another program of the session, with a connection of its own to the bus that is the session's now. On one thread.
class BusProgram {
public:
    BusProgram() {
        requireBus(::sd_bus_new(&bus_));
        requireBus(::sd_bus_set_address(bus_, busAddress()));
        requireBus(::sd_bus_set_bus_client(bus_, 1));
        requireBus(::sd_bus_start(bus_));
    }
    ~BusProgram() { ::sd_bus_flush_close_unref(bus_); }
    BusProgram(const BusProgram&) = delete;
    BusProgram& operator=(const BusProgram&) = delete;

    [[nodiscard]] sd_bus* get() const noexcept { return bus_; }
    /// Handles what has come.
    void process() {
        while (::sd_bus_process(bus_, nullptr) > 0) {
        }
    }
    /// Returns once the bus has passed on whatever was sent before.
    void arrive() {
        requireBus(::sd_bus_call_method(bus_, busName, busPath, busName, "GetId", nullptr, nullptr, nullptr));
    }

private:
    sd_bus* bus_ = nullptr;
};

} // namespace orlinth::fakes
