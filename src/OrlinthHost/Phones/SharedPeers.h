#pragma once

#include "OrlinthHost/Home.h"

namespace orlinth::host {

/// Brings the share sheet's list of phones in step with the peer store. To be called after every change of the store.
/// Failures are ignored, as the list is a convenience and the next change writes it anew.
void updateSharedPeers(const Home& home) noexcept;

} // namespace orlinth::host
