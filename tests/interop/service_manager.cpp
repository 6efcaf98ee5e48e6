// A stand-in for the user's service manager (systemd --user), on the session's bus.
//
//     service_manager NAME=VALUE...
//
// It says "ready" once others can ask it for its variables, which are its arguments, and stays until it is ended.

#include <systemd/sd-bus.h>

#include <cstdio>
#include <span>
#include <stdexcept>
#include <string>

namespace {

using Words = std::span<char*>;

void require(int result) {
    if (result < 0) {
        throw std::runtime_error("the bus: " + std::to_string(result));
    }
}

int writeVariables(sd_bus* /*bus*/, const char* /*path*/, const char* /*interface*/, const char* /*property*/,
                   sd_bus_message* reply, void* data, sd_bus_error* /*error*/) {
    require(sd_bus_message_open_container(reply, 'a', "s"));
    for (const char* const variable : *static_cast<const Words*>(data)) {
        require(sd_bus_message_append(reply, "s", variable));
    }
    return sd_bus_message_close_container(reply);
}

void serve(Words variables) {
    static const sd_bus_vtable table[] = {
        SD_BUS_VTABLE_START(0), SD_BUS_PROPERTY("Environment", "as", writeVariables, 0, 0), SD_BUS_VTABLE_END};
    sd_bus* bus = nullptr;
    require(sd_bus_open_user(&bus));
    require(sd_bus_add_object_vtable(bus, nullptr, "/org/freedesktop/systemd1", "org.freedesktop.systemd1.Manager",
                                     table, &variables));
    require(sd_bus_request_name(bus, "org.freedesktop.systemd1", 0));
    std::puts("ready");
    std::fflush(stdout);
    for (;;) {
        int handled = 1;
        while (handled > 0) {
            handled = sd_bus_process(bus, nullptr);
            require(handled);
        }
        require(sd_bus_wait(bus, UINT64_MAX));
    }
}

} // namespace

int main(int count, char** arguments) {
    try {
        serve(Words(arguments, static_cast<std::size_t>(count)).subspan(1));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "service_manager: %s\n", error.what());
    }
    return 1;
}
