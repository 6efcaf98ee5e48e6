#pragma once

#include "platform/Task.h"

namespace orlinth::platform {

/// Waits until a read of the descriptor would not block: there is something to read, or the end, or an error that the
/// read will report. What can always be read, such as a regular file, is not waited for.
///
/// The descriptor stays the caller's, open until the task has ended, and is not made non-blocking: other programs may
/// share it, as they do a terminal.
/// @throws Cancelled; SystemError if the system has no room for another wait
[[nodiscard]] Task<> untilReadable(int descriptor);

} // namespace orlinth::platform
