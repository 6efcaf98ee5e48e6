#pragma once

#include "platform/Folder.h"

namespace orlinth::platform {

/// A folder by its descriptor: names are looked up below it by openat2(2) with RESOLVE_BENEATH and RESOLVE_NO_SYMLINKS,
/// or, on a kernel that has not got that call, by openat(2) with O_NOFOLLOW, which for a single name is the same.
/// A folder that may be entered and written but not read can be used too; it is then never flushed.
/// @throws SystemError
[[nodiscard]] std::unique_ptr<Folder> openLinuxFolder(const Path& path);

} // namespace orlinth::platform
