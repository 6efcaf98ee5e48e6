#pragma once

#include <exception>
#include <string>

namespace orlinth::host {

/// The second line of a failure: what the person can do about it; "" where nothing helps.
/// `where` is the phone's name and address.
[[nodiscard]] std::string hintForSending(const std::exception& error, const std::string& where);
[[nodiscard]] std::string hintForReceiving(const std::exception& error, const std::string& from);

} // namespace orlinth::host
