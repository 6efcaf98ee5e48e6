#pragma once

#include <string>

namespace orlinth::host {

/// The base of the push service's API: ORLINTH_FCM_BASE_URL, or the public one.
[[nodiscard]] std::string pushServiceURL();

/// What a person can do about a push that failed with this text; "" where nothing helps.
[[nodiscard]] std::string hintForPush(const std::string& text);

} // namespace orlinth::host
