#pragma once

#include "platform/FileSystem.h"

namespace orlinth::platform {

/// The folders of the user who runs the program.
struct UserDirectories {
    Path home{};    ///< $HOME, else what the user database says
    Path data;      ///< per-user application data: $XDG_DATA_HOME, else ~/.local/share
    Path config;    ///< per-user settings: $XDG_CONFIG_HOME, else ~/.config
    Path downloads; ///< where received files go

    /// Whether the data is where this user's programs keep it unless they are told otherwise, and so the same for what
    /// others start.
    [[nodiscard]] bool areUsual() const { return !home.empty() && data == home / ".local" / "share"; }
};

} // namespace orlinth::platform
