#include "platform/NetworkInterfaces.h"

namespace orlinth::platform {

std::string dottedDecimal(const Ipv4Address& address) {
    std::string text;
    for (const std::uint8_t byte : address) {
        text += (text.empty() ? "" : ".") + std::to_string(byte);
    }
    return text;
}

} // namespace orlinth::platform
