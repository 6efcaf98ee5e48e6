#pragma once

#include "OrlinthHost/Home.h"

#include <string>

namespace orlinth::host {

/// Whether a phone that was removed here has been notified.
struct Farewell {
    bool wasSent = false;
    std::string problem = {}; ///< why it was not; "" if that is not known
};

/// Notifies a phone that was just removed, of this record: one attempt, five seconds in all, and no push. If that
/// fails, the service notifies it when it connects. `home` and `ownKey` outlive the call. On the home's executor.
/// @throws platform::Cancelled
[[nodiscard]] Task<Farewell> notifyRemoved(Home& home, const platform::PrivateKey& ownKey, PeerRecord phone);

} // namespace orlinth::host
