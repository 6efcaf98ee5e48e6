#pragma once

#include "orlinth/Program/Host.h"

namespace orlinth::cli {

/// The folder for received files: `chosen` on the command line or in the settings, or else the user's own; says so if
/// that is not the desktop's downloads folder.
/// @throws UsageError if files of phones must not go there; host::objectionToDownloads() has the reasons
[[nodiscard]] platform::Path downloadsFolder(Host& host, const std::string& chosen);

} // namespace orlinth::cli
