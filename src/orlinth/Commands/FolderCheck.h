#pragma once

#include "orlinth/Program/Host.h"

namespace orlinth::cli {

/// The folder for received files: `chosen` on the command line or in the settings, or else the user's downloads folder.
/// Where that is the home folder, as some desktops have it, ~/Downloads is taken instead, which is told.
///
/// A folder in which a phone could put files that programs run or read by their names is refused: the home folder, the
/// folders of settings and of data, whatever has one of them in it, and what lies in Orlinth's own. Compared are the
/// folders themselves, not only their paths.
/// @throws UsageError
[[nodiscard]] platform::Path downloadsFolder(Host& host, const std::string& chosen);

/// Finds out before anything is received whether files can be put into this folder: it is there, or can be made, and
/// may be written. Leaves nothing behind.
///
/// A full disk is not found out: whether a file fits is known only once it is offered.
/// @throws host::HostError that names the folder and the system's reason
void requireWritableFolder(const Host& host, const platform::Path& folder);

} // namespace orlinth::cli
