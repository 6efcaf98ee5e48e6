#pragma once

#include "base/SecretBytes.h"
#include "platform/linux/Descriptor.h"

#include <chrono>
#include <cstddef>

namespace orlinth::platform {

using detail::Descriptor;

/// The open file of this number, under another one. @throws SystemError
[[nodiscard]] Descriptor sameFile(int number);

/// Everything that another program has put into a file that it has passed to us: memory, sealed or not, a file on a
/// disk, from its beginning; or a pipe, until its end. Of a file that changes meanwhile it is some of both.
///
/// Blocks on the disk, or for at most `patience` on the pipe. @throws SystemError, also for any other kind of file, and
/// if there are more than `maxBytes`, or no end in time
[[nodiscard]] SecretBytes readPassedFile(const Descriptor& file, std::size_t maxBytes,
                                         std::chrono::milliseconds patience);

} // namespace orlinth::platform
