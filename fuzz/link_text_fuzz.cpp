#include "Demand.h"
#include "OrlinthHost/Service/LinkText.h"
#include "base/Bytes.h"
#include "base/Text.h"

#include <algorithm>
#include <optional>
#include <span>
#include <string>
#include <string_view>

using orlinth::fuzzing::demand;

/// Whatever text a phone sends, the host on the button is the one that a browser would go to, and what is passed to a
/// program is one plain word.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr std::string_view scheme = "https://";
    const std::string text = orlinth::toText(std::as_bytes(std::span(data, size)));
    const std::optional<std::string> host = orlinth::host::hostOfLink(text);
    if (!host) {
        return 0;
    }
    const std::string address = orlinth::host::addressOfLink(text);
    demand(orlinth::host::hostOfLink(address) == host, "the address alone has the same host");
    demand(address.starts_with(scheme), "the scheme is https");
    demand(std::ranges::all_of(address, [](char byte) { return byte > ' ' && byte <= '~'; }), "it is plain ASCII");
    const std::string rest = orlinth::lowerCased(address.substr(scheme.size()));
    demand(rest.starts_with(*host), "the host comes first");
    demand(rest.size() == host->size() || std::string_view(":/?#").find(rest[host->size()]) != std::string_view::npos,
           "and is whole");
    const std::string authority = rest.substr(0, rest.find_first_of("/?#\\"));
    demand(authority.find('@') == std::string::npos, "nobody's name is before it");
    return 0;
}
