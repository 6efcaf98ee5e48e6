#include "OrlinthBus/FileUri.h"

#include "base/Hex.h"
#include "base/Text.h"

#include <optional>
#include <string>

namespace orlinth::bus {

namespace {

/// The text with every "%41" as the byte that it stands for; nothing if a "%" stands for none, or for a zero.
std::optional<std::string> percentDecoded(std::string_view text) {
    std::string decoded;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded += text[i];
            continue;
        }
        const std::optional<unsigned> high = i + 1 < text.size() ? hexDigit(text[i + 1]) : std::nullopt;
        const std::optional<unsigned> low = i + 2 < text.size() ? hexDigit(text[i + 2]) : std::nullopt;
        if (!high || !low || (*high == 0 && *low == 0)) {
            return std::nullopt;
        }
        decoded += static_cast<char>(*high * 16 + *low);
        i += 2;
    }
    return decoded;
}

} // namespace

platform::Path pathOfFileUri(std::string_view uri) {
    constexpr std::string_view scheme = "file://";
    constexpr std::string_view thisComputer = "localhost";
    const auto fail = [uri](const char* why) { throw FileUriError("'" + forDisplay(uri) + "' " + why); };
    if (!uri.starts_with(scheme)) {
        fail("is not the URI of a file, such as file:///home/ada/film.mov");
    }
    std::string_view rest = uri.substr(scheme.size());
    if (rest.starts_with(thisComputer)) {
        rest.remove_prefix(thisComputer.size());
    }
    if (!rest.starts_with('/')) {
        fail("is on another computer");
    }
    const std::optional<std::string> path = percentDecoded(rest);
    if (!path) {
        fail("has a \"%\" that stands for nothing");
    }
    return *path;
}

} // namespace orlinth::bus
