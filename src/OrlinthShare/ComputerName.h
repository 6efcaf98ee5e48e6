#pragma once

#include "platform/FileSystem.h"

#include <QString>
#include <string>
#include <string_view>

namespace orlinth::share {

/// The name that its user gave this computer ("Ann's laptop", PRETTY_HOSTNAME of /etc/machine-info), else its host
/// name.
[[nodiscard]] QString computerName(platform::FileSystem& files);

/// The value of PRETTY_HOSTNAME in the text of a machine-info file (shell-like assignments, one a line); "" if there is
/// none.
[[nodiscard]] std::string prettyHostname(std::string_view machineInfo);

} // namespace orlinth::share
