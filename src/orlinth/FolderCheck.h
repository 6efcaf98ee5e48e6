#pragma once

#include "orlinth/Host.h"

namespace orlinth::host {

/// Finds out before anything is received whether files can be put into this folder: it is there, or can be made, and
/// may be written. Leaves nothing behind.
///
/// A full disk is not found out: whether a file fits is known only once it is offered.
/// @throws HostError that names the folder and the system's reason
void requireWritableFolder(const Host& host, const platform::Path& folder);

} // namespace orlinth::host
