#pragma once

#include "orlinth/Program/Host.h"

namespace orlinth::cli {

/// The folder for received files: `chosen` on the command line or in the settings, or else the user's own; says so if
/// that is not the desktop's downloads folder.
/// @throws UsageError if files of phones must not go there; host::objectionToDownloads() has the reasons
[[nodiscard]] platform::Path downloadsFolder(Host& host, const std::string& chosen);

/// Whether this folder, in which received files go, is one for them. @throws UsageError likewise
void requireGoodDownloads(const Host& host, const platform::Path& folder);

} // namespace orlinth::cli
