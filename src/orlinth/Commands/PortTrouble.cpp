#include "orlinth/Commands/PortTrouble.h"

#include "OrlinthHost/Service/ServiceControl.h"

#include <utility>

namespace orlinth::cli {

namespace {

std::string hintFor(Host& host, std::uint16_t port, const std::error_code& reason) {
    const std::string number = std::to_string(port);
    if (reason == std::errc::permission_denied) {
        return "This account may not open port " + number +
               "; ports below 1024 are usually reserved. Choose a higher one with `--port`.";
    }
    if (reason != std::errc::address_in_use) {
        return {};
    }
    if (portOfService(host) == port) {
        return "The Orlinth service is using port " + number +
               " and receives from every paired phone. Choose another port (`--port 0`: any free one), or stop the "
               "service first.";
    }
    return "Another program is using port " + number +
           "; `ss -ltnp` shows which. Choose another port (`--port 0`: any free one), or stop that program.";
}

} // namespace

std::optional<std::uint16_t> portOfService(Host& host) {
    try {
        return host.tasks.run(host::askServicePort(host));
    } catch (const host::HostError& error) {
        host.system.log.write(platform::LogLevel::debug, "com.tarvinex.orlinth", "control", error.description());
        return std::nullopt;
    }
}

host::HostError portTrouble(Host& host, std::uint16_t port, const std::error_code& reason, std::string text) {
    return host::HostError(std::move(text), hintFor(host, port, reason));
}

} // namespace orlinth::cli
