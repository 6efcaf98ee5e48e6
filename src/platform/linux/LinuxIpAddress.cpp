#include "platform/IpAddress.h"

#include <algorithm>
#include <arpa/inet.h>
#include <net/if.h>
#include <string_view>

namespace orlinth::platform {
namespace {

/// What the kernel takes for an interface's name, less what is hard to read: printable ASCII without "/", ":" and "%".
bool canNameAnInterface(std::string_view zone) {
    return !zone.empty() && zone.size() < IF_NAMESIZE && zone != "." && zone != ".." &&
           std::ranges::all_of(
               zone,
               [](char c) { return c > ' ' && c <= '~' && std::string_view("/:%").find(c) == std::string_view::npos; });
}

} // namespace

std::optional<IpAddress> parseIpAddress(const std::string& literal) {
    if (literal.find('\0') != std::string::npos) {
        return std::nullopt; // the calls below would see the text in front of it only
    }
    if (Ipv4Address v4{}; ::inet_pton(AF_INET, literal.c_str(), v4.data()) == 1) {
        return v4;
    }
    Ipv6Address v6;
    const std::size_t percent = literal.find('%');
    if (::inet_pton(AF_INET6, literal.substr(0, percent).c_str(), v6.bytes.data()) != 1) {
        return std::nullopt;
    }
    if (percent != std::string::npos) {
        v6.zone = literal.substr(percent + 1);
        if (!canNameAnInterface(v6.zone)) {
            return std::nullopt;
        }
    }
    return v6;
}

std::string textOf(const IpAddress& address) {
    if (const auto* const v4 = std::get_if<Ipv4Address>(&address)) {
        return dottedDecimal(*v4);
    }
    const auto& v6 = std::get<Ipv6Address>(address);
    std::array<char, INET6_ADDRSTRLEN> text{};
    ::inet_ntop(AF_INET6, v6.bytes.data(), text.data(), text.size()); // there is room for every address
    return v6.zone.empty() ? text.data() : std::string(text.data()) + "%" + v6.zone;
}

} // namespace orlinth::platform
