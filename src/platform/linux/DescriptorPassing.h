#pragma once

#include "platform/linux/Descriptor.h"

#include <optional>

/// Passing an open file to another process over a local socket: one byte with the descriptor beside it (SCM_RIGHTS).
namespace orlinth::platform::detail {

/// Passes `number`, which stays ours too. Never waits: false if the socket does not take it now.
/// @throws SystemError if the socket fails
[[nodiscard]] bool passDescriptor(int socket, int number);

/// Takes what passDescriptor() has sent; programs started from here do not inherit it. Never waits: nothing if nothing
/// has come yet. Of a message with more than one descriptor, or with none, nothing stays open.
/// @throws SystemError if the socket fails, if the other side has ended, or if no single descriptor came
[[nodiscard]] std::optional<Descriptor> takeDescriptor(int socket);

} // namespace orlinth::platform::detail
