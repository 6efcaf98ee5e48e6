#pragma once

#include "OrlinthCore/Sending/ClipboardSender.h"
#include "OrlinthHost/Home.h"
#include "OrlinthHost/Reach/FinderPlan.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace orlinth::host {

/// How long the steps of sending a text may take.
struct TextTimes {
    Seconds warm = 5s;  ///< the first attempt to connect; 0: no limit
    Seconds wake = 10s; ///< the attempt after a push; 0: no limit
    Seconds answer =
        10s; ///< the phone's answer. Sending may take as long, and a second more for each 250 kB. 0: no limit
};

/// @throws HostError unless this is a text that can be sent: UTF-8 with at least one character
void requireText(std::string_view text);

/// The request for a text of so many bytes, without anybody who listens to it. `ownKey` outlives it.
[[nodiscard]] OneOffRequest textRequest(PeerRecord peer, const platform::PrivateKey& ownKey, const TextTimes& times,
                                        std::size_t textBytes);

/// Sends a text to one phone's clipboard, as sendClipboard() does, and looks for the phone beside that (see Approach).
/// `home` and what the request refers to outlive the call. On the home's executor.
/// @throws as sendClipboard()
[[nodiscard]] Task<OneOffEnd> deliverText(Home& home, FindSetting find, std::string text, std::string mime,
                                          OneOffRequest request);

} // namespace orlinth::host
