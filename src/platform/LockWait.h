#pragma once

#include "platform/Storage.h"

namespace orlinth::platform {

/// Gets the advisory lock of a file that was opened for writing, within `limit`; returns whether it has it.
///
/// flock() tells nobody when a lock is free, unless a thread waits for it. But whoever held it closes the file, and
/// that is seen by a watch on its folder, if he had it open for writing, as everybody here has. Where the folder cannot
/// be watched the lock is tried once more when the time is over.
///
/// `path` is the file's. On the caller's executor; `file` outlives the task.
/// @throws SystemError if the file cannot be locked; Cancelled
[[nodiscard]] Task<bool> lockWithin(Storage storage, File& file, Path path, Seconds limit);

} // namespace orlinth::platform
