#pragma once

#include "OrlinthHost/Home.h"

namespace orlinth::host {

/// Sends the wake push to the phone of this record, and nothing else; returns when the push service has taken it.
/// `home` outlives the call. On the home's executor.
/// @throws HostError if the phone has no push token; FcmWake::Error; platform::HttpError; platform::Cancelled
[[nodiscard]] Task<> wakePhone(Home& home, PeerRecord phone);

} // namespace orlinth::host
