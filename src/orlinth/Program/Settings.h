#pragma once

#include "orlinth/Program/SettingsText.h"
#include "platform/Directories.h"
#include "platform/FileSystem.h"

#include <CLI/CLI.hpp>

#include <string>

namespace orlinth::cli {

/// Makes the values of the settings file the defaults of the flags, so that a flag wins and `--help` shows them.
///
/// The file is TOML: a table for each command (`[send]`, `[receive]`), in it flags by their long names without the
/// dashes (`warm-timeout = 2.5`). Paths begin with "/" or "~/", which is the home folder, since nobody knows in which
/// folder a command will run. No file, no settings. @throws SettingsError that names the file, line and column
void applySettings(CLI::App& program, platform::FileSystem& files, const platform::UserDirectories& directories);

} // namespace orlinth::cli
