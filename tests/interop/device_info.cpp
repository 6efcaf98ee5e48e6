// What this computer says of itself when it pairs, for tests that make up the network around it.
//
//     device_info [INTERFACE]
//
// Prints one JSON object: the fields, or "error" with the error's text.

#include "OrlinthCore/Pairing/DeviceInfo.h"
#include "base/Json.h"
#include "platform/linux/LinuxNetworkInterfaces.h"

#include <cstdio>

using namespace orlinth;

namespace {

Json describeDevice(const std::optional<std::string>& named) {
    try {
        const DeviceInfo device = DeviceInfo::current(platform::LinuxNetworkInterfaces(), named);
        return {{"interface", device.interface},
                {"ipv4", device.ipv4},
                {"subnet", device.subnetCIDR},
                {"mac", device.macAddress},
                {"hostname", device.hostname}};
    } catch (const DeviceInfoError& error) {
        return {{"error", error.description()}};
    }
}

} // namespace

int main(int count, char** arguments) {
    const std::span words(arguments, static_cast<std::size_t>(count));
    if (words.size() > 2) {
        std::fputs("usage: device_info [INTERFACE]\n", stderr);
        return 2;
    }
    try {
        const Json device = describeDevice(words.size() == 2 ? std::optional<std::string>(words[1]) : std::nullopt);
        return std::puts(compactJson(device).c_str()) < 0 ? 1 : 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "device_info: %s\n", error.what());
        return 1;
    }
}
