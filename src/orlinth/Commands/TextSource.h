#pragma once

#include "orlinth/Program/Host.h"

#include <string>

namespace orlinth::cli {

/// Everything that standard input holds, as text. Reads no more than a message can carry.
/// @throws host::HostError; TransportFramer::Error::plaintextTooLarge; platform::SystemError if reading fails
[[nodiscard]] std::string textFromStandardInput();

/// The text on the desktop's clipboard, unless it is marked as sensitive; then it is not read.
/// @throws host::HostError that says what to do
[[nodiscard]] std::string textFromClipboard(Host& host);

} // namespace orlinth::cli
