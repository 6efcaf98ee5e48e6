#pragma once

#include "orlinth/Program/SettingsText.h"
#include "platform/Directories.h"
#include "platform/FileSystem.h"

#include <CLI/CLI.hpp>

#include <string>

namespace orlinth::cli {

/// What the settings file says that is no flag's.
struct SettingsBesideFlags {
    std::string computerName; ///< `name` in [id]: what this computer calls itself when it is paired; "" if not set
    std::string defaultPhone; ///< `to` in [send]: the phone that every command means that names none; "" if not set
};

/// Makes the values of the settings file the defaults of the flags, so that a flag wins and `--help` shows them.
///
/// The file is TOML: a table for each command (`[send]`, `[receive]`), in it flags by their long names without the
/// dashes (`warm-timeout = 2.5`). Paths begin with "/" or "~/", which is the home folder, since nobody knows in which
/// folder a command will run. No file, no settings. @throws SettingsError that names the file, line and column
[[nodiscard]] SettingsBesideFlags applySettings(CLI::App& program, platform::FileSystem& files,
                                                const platform::UserDirectories& directories);

} // namespace orlinth::cli
