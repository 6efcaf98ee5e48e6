#pragma once

#include "platform/Directories.h"

#include <functional>
#include <string_view>

namespace orlinth::platform {

/// Looks up an environment variable; null where it is not set (getenv(3) is one).
using Environment = std::function<const char*(const char*)>;

/// The user's folders by the XDG base directory rules: a variable counts only if it holds an absolute path.
/// Home is $HOME, else what the user database says, else "/". Makes nothing.
[[nodiscard]] UserDirectories linuxUserDirectories(const Environment& environment);

/// The folders that hold shared data, the most important first: $XDG_DATA_HOME, then those of $XDG_DATA_DIRS.
[[nodiscard]] std::vector<Path> linuxDataDirectories(const Environment& environment);

/// The download folder in the text of a `user-dirs.dirs` file: lines such as `XDG_DOWNLOAD_DIR="$HOME/Downloads"`,
/// with "$HOME" or "/" at the start of the value and backslash escapes. The last valid line counts; no shell is run.
[[nodiscard]] std::optional<Path> downloadDirectoryIn(std::string_view userDirs, const Path& home);

} // namespace orlinth::platform
