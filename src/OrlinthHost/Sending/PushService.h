#pragma once

#include <string>

namespace orlinth::host {

/// The base of the push service's API: ORLINTH_FCM_BASE_URL, or the public one.
[[nodiscard]] std::string pushServiceURL();

} // namespace orlinth::host
