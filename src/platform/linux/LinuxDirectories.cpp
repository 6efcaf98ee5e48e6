#include "platform/linux/LinuxDirectories.h"

#include "platform/WholeFile.h"
#include "platform/linux/LinuxFileSystem.h"

#include <pwd.h>
#include <unistd.h>

namespace orlinth::platform {
namespace {

/// A variable's absolute path, without trailing slashes; relative ones are to be ignored.
std::optional<Path> absolutePath(std::string_view text) {
    if (!text.starts_with('/')) {
        return std::nullopt;
    }
    while (text.size() > 1 && text.ends_with('/')) {
        text.remove_suffix(1);
    }
    return Path(text);
}

std::optional<Path> pathVariable(const Environment& environment, const char* name) {
    const char* const value = environment(name);
    return value != nullptr ? absolutePath(value) : std::nullopt;
}

std::optional<Path> homeInUserDatabase() {
    std::vector<char> buffer(4096);
    passwd entry{};
    passwd* found = nullptr;
    int code = 0;
    while ((code = ::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found)) == ERANGE &&
           buffer.size() < (1U << 20U)) {
        buffer.resize(buffer.size() * 2);
    }
    if (code != 0 || found == nullptr || found->pw_dir == nullptr) {
        return std::nullopt;
    }
    return absolutePath(found->pw_dir);
}

Path homeDirectory(const Environment& environment) {
    if (const std::optional<Path> home = pathVariable(environment, "HOME")) {
        return *home;
    }
    return homeInUserDatabase().value_or("/");
}

std::string_view withoutLeadingBlanks(std::string_view text) {
    const std::size_t start = text.find_first_not_of(" \t");
    return start == std::string_view::npos ? std::string_view() : text.substr(start);
}

/// What stands between double quotes, unescaped; nothing where the closing quote is missing.
std::optional<std::string> quotedText(std::string_view text) {
    if (!text.starts_with('"')) {
        return std::nullopt;
    }
    std::string value;
    for (std::size_t i = 1; i < text.size(); ++i) {
        if (text[i] == '"') {
            return value;
        }
        if (text[i] == '\\' && i + 1 < text.size()) {
            ++i;
        }
        value.push_back(text[i]);
    }
    return std::nullopt;
}

std::optional<Path> downloadDirectoryInLine(std::string_view line, const Path& home) {
    constexpr std::string_view key = "XDG_DOWNLOAD_DIR";
    std::string_view rest = withoutLeadingBlanks(line);
    if (!rest.starts_with(key)) {
        return std::nullopt;
    }
    rest = withoutLeadingBlanks(rest.substr(key.size()));
    if (!rest.starts_with('=')) {
        return std::nullopt;
    }
    rest = withoutLeadingBlanks(rest.substr(1));
    constexpr std::string_view homeMark = "\"$HOME";
    const bool belowHome = rest.starts_with(homeMark);
    const std::optional<std::string> value =
        quotedText(belowHome ? "\"" + std::string(rest.substr(homeMark.size())) : std::string(rest));
    if (!value) {
        return std::nullopt;
    }
    if (!belowHome) {
        return absolutePath(*value);
    }
    if (value->empty()) {
        return home;
    }
    return value->starts_with('/') ? absolutePath(home.string() + *value) : std::nullopt;
}

/// The text of a small settings file; empty where it cannot be read, which is no failure: defaults hold then.
std::string settingsText(const Path& path) {
    constexpr std::size_t most = 65536;
    try {
        LinuxFileSystem files;
        Bytes content(most);
        const std::unique_ptr<File> file = files.open(path, OpenMode::read);
        content.resize(file->read(content));
        return toText(content);
    } catch (const std::exception&) {
        return {};
    }
}

} // namespace

std::optional<Path> downloadDirectoryIn(std::string_view userDirs, const Path& home) {
    std::optional<Path> found;
    while (!userDirs.empty()) {
        const std::size_t end = std::min(userDirs.find('\n'), userDirs.size());
        if (std::optional<Path> path = downloadDirectoryInLine(userDirs.substr(0, end), home)) {
            found = std::move(path);
        }
        userDirs.remove_prefix(std::min(end + 1, userDirs.size()));
    }
    return found;
}

UserDirectories linuxUserDirectories(const Environment& environment) {
    const Path home = homeDirectory(environment);
    UserDirectories directories;
    directories.home = home;
    directories.data = pathVariable(environment, "XDG_DATA_HOME").value_or(home / ".local/share");
    directories.config = pathVariable(environment, "XDG_CONFIG_HOME").value_or(home / ".config");
    directories.downloads =
        downloadDirectoryIn(settingsText(directories.config / "user-dirs.dirs"), home).value_or(home / "Downloads");
    return directories;
}

std::vector<Path> linuxDataDirectories(const Environment& environment) {
    std::vector<Path> directories{linuxUserDirectories(environment).data};
    const char* const value = environment("XDG_DATA_DIRS");
    std::string_view rest = value != nullptr && *value != '\0' ? value : "/usr/local/share:/usr/share";
    while (!rest.empty()) {
        const std::size_t end = std::min(rest.find(':'), rest.size());
        if (std::optional<Path> path = absolutePath(rest.substr(0, end))) {
            directories.push_back(*std::move(path));
        }
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return directories;
}

} // namespace orlinth::platform
