#pragma once

#include "base/SecretBytes.h"
#include "platform/linux/Descriptor.h"

#include <cstddef>

/// Files without a name, in memory, that pass something to another program and can never change again (memfd_create(2)
/// with all seals). Unlike a message they pass through no log, and nobody reads them without the descriptor.
namespace orlinth::platform::detail {

/// A new one with these bytes. @throws SystemError
[[nodiscard]] Descriptor sealedMemory(ByteView bytes);

/// What somebody else has made that way. @throws SystemError unless it is one, of at most `maxBytes`
[[nodiscard]] SecretBytes readSealedMemory(const Descriptor& file, std::size_t maxBytes);

} // namespace orlinth::platform::detail
