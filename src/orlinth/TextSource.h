#pragma once

#include "orlinth/Host.h"

#include <string>

namespace orlinth::host {

/// Everything that standard input holds, as text. Reads no more than a message can carry.
/// @throws HostError; TransportFramer::Error::plaintextTooLarge; platform::SystemError if reading fails
[[nodiscard]] std::string textFromStandardInput();

/// The text on the desktop's clipboard, unless it is marked as sensitive; then it is not read.
/// @throws HostError that says what to do
[[nodiscard]] std::string textFromClipboard(Host& host);

/// @throws HostError unless the text is UTF-8 with at least one character
void requireText(const std::string& text);

} // namespace orlinth::host
