#pragma once

#include <exception>
#include <string>

namespace orlinth::host {

/// The base of the push service's API: ORLINTH_FCM_BASE_URL, or the public one.
[[nodiscard]] std::string pushServiceURL();

/// What a person can do about a push that failed with this error; null if nothing is known about it.
[[nodiscard]] std::string hintForPush(const std::exception_ptr& error);

} // namespace orlinth::host
