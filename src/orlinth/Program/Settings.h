#pragma once

#include "base/Error.h"
#include "platform/FileSystem.h"

#include <CLI/CLI.hpp>

namespace orlinth::cli {

/// The settings file is there and cannot be used; the text names the file and what is wrong in it.
class SettingsError : public Error {
public:
    explicit SettingsError(std::string text) : Error(std::move(text)) {}
};

/// Makes the values of the settings file the defaults of the flags, so that a flag wins and `--help` shows them.
///
/// The file is TOML: a table for each command (`[send]`, `[receive]`), in it flags by their long names without the
/// dashes (`warm-timeout = 2.5`). No file, no settings. @throws SettingsError
void applySettings(CLI::App& program, platform::FileSystem& files, const platform::Path& file);

} // namespace orlinth::cli
