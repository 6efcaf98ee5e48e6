#include "OrlinthHost/Service/LinkText.h"

#include "base/Text.h"

#include <algorithm>

namespace orlinth::host {

namespace {

constexpr std::string_view scheme = "https://";
/// What browsers take, and a command line without doubt.
constexpr std::size_t maxAddressBytes = 2048;
/// What a button has room for.
constexpr std::size_t maxHostBytes = 60;
constexpr std::size_t maxPortDigits = 5;

bool isDigit(char character) noexcept {
    return character >= '0' && character <= '9';
}

bool isOfHost(char character) noexcept {
    return isDigit(character) || (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
           character == '.' || character == '-';
}

/// Those of RFC 3986, and "%".
bool isOfAddress(char character) noexcept {
    return character > ' ' && character <= '~' &&
           std::string_view("\"<>\\^`{|}").find(character) == std::string_view::npos;
}

} // namespace

std::string addressOfLink(std::string_view text) {
    return trimmed(text);
}

std::optional<std::string> hostOfLink(std::string_view text) {
    if (text.size() > 2 * maxAddressBytes) {
        return std::nullopt;
    }
    const std::string address = addressOfLink(text);
    if (address.size() > maxAddressBytes || !address.starts_with(scheme) ||
        !std::ranges::all_of(address, isOfAddress)) {
        return std::nullopt;
    }
    std::string_view authority = std::string_view(address).substr(scheme.size());
    authority = authority.substr(0, authority.find_first_of("/?#"));
    const std::size_t colon = authority.find(':');
    const std::string_view host = authority.substr(0, colon);
    if (colon != std::string_view::npos) {
        const std::string_view port = authority.substr(colon + 1);
        if (port.size() > maxPortDigits || !std::ranges::all_of(port, isDigit)) {
            return std::nullopt;
        }
    }
    const bool isHost = !host.empty() && host.size() <= maxHostBytes && std::ranges::all_of(host, isOfHost) &&
                        host.front() != '.' && host.front() != '-';
    return isHost ? std::optional(lowerCased(host)) : std::nullopt;
}

} // namespace orlinth::host
