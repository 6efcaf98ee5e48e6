#pragma once

#include "platform/Folder.h"

namespace orlinth::platform {

/// A folder by its descriptor: names are looked up below it by openat2(2) with RESOLVE_BENEATH and RESOLVE_NO_SYMLINKS,
/// or, on a kernel that has not got that call, by openat(2) with O_NOFOLLOW, which for a single name is the same.
/// A folder that may be entered and written but not read can be used too; it is then never flushed.
/// `ordinaryPermissions` are those of Folder. @throws SystemError
[[nodiscard]] std::unique_ptr<Folder> openLinuxFolder(const Path& path, std::uint32_t ordinaryPermissions);

/// What the process's umask leaves of 0666. The kernel tells the umask only in a file of /proc that takes it as long to
/// write as a small file takes to be received: to be asked once, as no part of a program that has threads changes it.
[[nodiscard]] std::uint32_t permissionsUnderUmask();

} // namespace orlinth::platform
