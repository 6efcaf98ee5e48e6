#pragma once

#include "OrlinthCore/Sending/ClipboardSender.h"
#include "OrlinthHost/Home.h"
#include "OrlinthHost/Reach/FinderPlan.h"

#include <string>

namespace orlinth::host {

/// Sends a text to one phone's clipboard, as sendClipboard() does, and looks for the phone beside that (see Approach).
/// `home` and what the request refers to outlive the call. On the home's executor.
/// @throws as sendClipboard()
[[nodiscard]] Task<OneOffEnd> deliverText(Home& home, FindSetting find, std::string text, std::string mime,
                                          OneOffRequest request);

} // namespace orlinth::host
