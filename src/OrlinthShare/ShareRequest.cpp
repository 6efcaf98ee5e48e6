#include "OrlinthShare/ShareRequest.h"

#include "base/Hex.h"
#include "base/Precondition.h"

#include <algorithm>
#include <array>
#include <cctype>

namespace orlinth::share {
namespace {

using platform::Path;

constexpr std::string_view fileScheme = "file";

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return std::ranges::equal(a, b,
                              [](unsigned char x, unsigned char y) { return std::tolower(x) == std::tolower(y); });
}

/// What stands before the first colon, if that can be the scheme of a URI (RFC 3986 §3.1); else "".
std::string_view schemeOf(std::string_view text) {
    const std::size_t colon = text.find(':');
    if (colon == std::string_view::npos || colon == 0 || std::isalpha(static_cast<unsigned char>(text[0])) == 0) {
        return {};
    }
    const std::string_view scheme = text.substr(0, colon);
    const bool fits = std::ranges::all_of(scheme, [](unsigned char character) {
        return std::isalnum(character) != 0 || character == '+' || character == '-' || character == '.';
    });
    return fits ? scheme : std::string_view();
}

std::optional<std::string> percentDecoded(std::string_view text) {
    std::string decoded;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded.push_back(text[i]);
            continue;
        }
        const std::optional<unsigned> high = i + 2 < text.size() ? hexDigit(text[i + 1]) : std::nullopt;
        const std::optional<unsigned> low = i + 2 < text.size() ? hexDigit(text[i + 2]) : std::nullopt;
        if (!high || !low) {
            return std::nullopt;
        }
        const char byte = static_cast<char>(*high * 16 + *low);
        if (byte == '\0' || byte == '/') {
            return std::nullopt; // no file has such a name
        }
        decoded.push_back(byte);
        i += 2;
    }
    return decoded;
}

} // namespace

std::optional<Path> pathOfFileUri(std::string_view uri) {
    if (!equalsIgnoringCase(schemeOf(uri), fileScheme)) {
        return std::nullopt;
    }
    std::string_view rest = uri.substr(fileScheme.size() + 1);
    if (rest.starts_with("//")) {
        const std::size_t slash = rest.find('/', 2);
        const std::string_view host = rest.substr(2, slash == std::string_view::npos ? slash : slash - 2);
        if (slash == std::string_view::npos || !(host.empty() || equalsIgnoringCase(host, "localhost"))) {
            return std::nullopt;
        }
        rest.remove_prefix(slash);
    }
    if (!rest.starts_with('/')) {
        return std::nullopt;
    }
    const std::optional<std::string> path = percentDecoded(rest);
    return path ? std::optional<Path>(*path) : std::nullopt;
}

ShareRequest::FileItems ShareRequest::fileItems(const platform::FileSystem& files) const {
    FileItems found;
    for (const std::string& item : items_) {
        const std::string_view scheme = schemeOf(item);
        if (item.starts_with('/')) {
            found.paths.emplace_back(item);
        } else if (equalsIgnoringCase(scheme, fileScheme)) {
            if (std::optional<Path> path = pathOfFileUri(item)) {
                found.paths.push_back(*std::move(path));
            } else {
                ++found.unreadable;
            }
        } else if (!item.empty() && files.exists(folder_ / item)) {
            found.paths.push_back(folder_ / item); // "notes:today.txt" may be one
        }
    }
    return found;
}

void ShareRequest::completeRequest(std::string notice) {
    notice_ = std::move(notice);
    end(std::nullopt);
}

void ShareRequest::cancelRequest(Error error) {
    end(std::move(error));
}

void ShareRequest::end(std::optional<Error> error) {
    if (hasEnded_) {
        preconditionFailed("a request ends once");
    }
    hasEnded_ = true;
    error_ = std::move(error);
    if (onEnd) {
        onEnd();
    }
}

} // namespace orlinth::share
