#include "platform/linux/LinuxMimeTypes.h"

#include "base/Text.h"
#include "platform/WholeFile.h"
#include "platform/linux/LinuxFileSystem.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace orlinth::platform {
namespace {

/// The text up to the next `separator`, which is taken off `rest` with it.
std::string_view takeField(std::string_view& rest, char separator) {
    const std::size_t end = std::min(rest.find(separator), rest.size());
    const std::string_view field = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    return field;
}

bool hasFlag(std::string_view flags, std::string_view wanted) {
    while (!flags.empty()) {
        if (takeField(flags, ',') == wanted) {
            return true;
        }
    }
    return false;
}

/// Types travel to the peer: printable ASCII with a slash in it, or it is none.
bool looksLikeType(std::string_view type) {
    return type.find('/') != std::string_view::npos &&
           std::all_of(type.begin(), type.end(), [](char c) { return c > ' ' && c < '\x7F'; });
}

/// The extension of a "*.ext" pattern; nothing for every other kind.
std::optional<std::string_view> extensionOf(std::string_view pattern) {
    if (!pattern.starts_with("*.")) {
        return std::nullopt;
    }
    const std::string_view extension = pattern.substr(2);
    if (extension.empty() || extension.find_first_of(".*?[]\\") != std::string_view::npos) {
        return std::nullopt;
    }
    return extension;
}

/// Where the shared database has a type that phones do not know what to do with.
struct Exception {
    std::string_view extension;
    const char* type;
};
constexpr std::array exceptions{
    // The database prefers the translation files of Qt; what people send to a phone under this name is a film, which it
    // would then store as a text and not show in its gallery.
    Exception{"ts", "video/mp2t"},
    // The database has the older "audio/x-wav", or "audio/vnd.wave"; Android's own table and its players go by this.
    Exception{"wav", "audio/wav"},
};

std::string tableText(const Path& path) {
    try {
        LinuxFileSystem files;
        return toText(readWholeFile(files, path));
    } catch (const std::exception&) {
        return {}; // a folder without a database, or one that is not for us, knows no types
    }
}

} // namespace

std::optional<std::string> LinuxMimeTypes::typeForExtension(std::string_view extension) const {
    const std::string lower = lowerCased(extension);
    const auto* const exception = std::ranges::find(exceptions, lower, &Exception::extension);
    if (exception != exceptions.end()) {
        return exception->type;
    }
    std::call_once(loaded_, [this] { load(); });
    const auto exact = exact_.find(extension);
    const auto folded = folded_.find(lower);
    if (exact != exact_.end() && (folded == folded_.end() || exact->second.weight >= folded->second.weight)) {
        return exact->second.type;
    }
    if (folded != folded_.end()) {
        return folded->second.type;
    }
    return std::nullopt;
}

void LinuxMimeTypes::load() const {
    for (const Path& directory : dataDirectories_) {
        loadTable(tableText(directory / "mime/globs2"));
    }
}

void LinuxMimeTypes::loadTable(std::string_view text) const {
    std::set<std::string, std::less<>> cleared;
    while (!text.empty()) {
        loadLine(takeField(text, '\n'), cleared);
    }
    cleared_.merge(cleared);
}

void LinuxMimeTypes::loadLine(std::string_view line, std::set<std::string, std::less<>>& cleared) const {
    const std::string_view weightText = takeField(line, ':');
    const std::string_view type = takeField(line, ':');
    const std::string_view pattern = takeField(line, ':');
    const std::string_view flags = takeField(line, ':');
    int weight = 0;
    const char* const weightEnd = weightText.data() + weightText.size();
    const auto parsed = std::from_chars(weightText.data(), weightEnd, weight);
    if (parsed.ec != std::errc() || parsed.ptr != weightEnd || !looksLikeType(type)) {
        return; // a comment or a kind of line that came later
    }
    if (pattern == "__NOGLOBS__") {
        cleared.emplace(type);
        return;
    }
    const std::optional<std::string_view> extension = extensionOf(pattern);
    if (!extension || cleared_.contains(type)) {
        return;
    }
    const bool caseSensitive = hasFlag(flags, "cs");
    Table& table = caseSensitive ? exact_ : folded_;
    const auto [entry, isNew] = table.try_emplace(caseSensitive ? std::string(*extension) : lowerCased(*extension),
                                                  Entry{weight, std::string(type)});
    if (!isNew && weight > entry->second.weight) {
        entry->second = Entry{weight, std::string(type)};
    }
}

} // namespace orlinth::platform
