#pragma once

#include "platform/FileSystem.h"

#include <string_view>

namespace orlinth::host {

/// Whether a click may open a file that a phone has sent. It may not if opening could mean to run it: one that the
/// system may execute, one whose name is that of a program, script, starter or package, and one that begins as those
/// do. Reads the beginning of the file; one that cannot be read may not be opened. Blocks on the disk; never throws.
[[nodiscard]] bool mayBeOpened(platform::FileSystem& files, const platform::Path& file) noexcept;

/// By its name alone.
[[nodiscard]] bool isNameOfProgram(std::string_view name);
/// By its first bytes alone: a script's "#!", a program's of Linux or Windows, a desktop entry's heading.
[[nodiscard]] bool isBeginningOfProgram(std::string_view beginning);

} // namespace orlinth::host
