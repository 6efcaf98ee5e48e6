#pragma once

#include "platform/FileSystem.h"

namespace orlinth::platform {

/// The folders of the user who runs the program.
struct UserDirectories {
    Path home{};    ///< $HOME, else what the user database says
    Path data;      ///< per-user application data: $XDG_DATA_HOME, else ~/.local/share
    Path config;    ///< per-user settings: $XDG_CONFIG_HOME, else ~/.config
    Path downloads; ///< where received files go
};

} // namespace orlinth::platform
