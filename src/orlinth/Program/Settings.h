#pragma once

#include "OrlinthHost/Settings/SettingSources.h"
#include "orlinth/Program/SettingsText.h"
#include "platform/Directories.h"
#include "platform/FileSystem.h"

#include <CLI/CLI.hpp>

namespace orlinth::cli {

/// Makes the values of the settings file the defaults of the flags, so that a flag wins and `--help` shows them.
/// Returns what it says of host::settingRules(): flags of `serve`, this computer's name (`name` in [id]), the default
/// phone of every command (`to` in [send]), and what holds for single phones (`[phones."Pixel 8"]`).
///
/// The file is TOML: a table for each command (`[send]`, `[receive]`), in it flags by their long names without the
/// dashes (`warm-timeout = 2.5`). Paths begin with "/" or "~/", which is the home folder, since nobody knows in which
/// folder a command will run. No file, no settings. @throws SettingsError that names the file, line and column
[[nodiscard]] host::SettingSources applySettings(CLI::App& program, platform::FileSystem& files,
                                                 const platform::UserDirectories& directories);

/// The flags of `serve` that stand on the command line, for those of host::settingRules(). Behind the parser's work.
[[nodiscard]] host::GivenSettings settingsFromFlags(const CLI::App& serve);

} // namespace orlinth::cli
