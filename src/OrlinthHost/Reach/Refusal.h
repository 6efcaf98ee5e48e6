#pragma once

#include <exception>

namespace orlinth::host {

/// Whether an attempt to connect has failed because whoever has the address takes no connections there: at once, or
/// each time until a deadline.
[[nodiscard]] bool isRefusal(const std::exception& error);
/// The same; false for null.
[[nodiscard]] bool isRefusal(const std::exception_ptr& error);

} // namespace orlinth::host
