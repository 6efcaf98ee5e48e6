#pragma once

#include "OrlinthCore/Receiving/Receiver.h"

#include <exception>
#include <string>

namespace orlinth::host {

/// The second line of a failure: what the person can do about it; "" where nothing helps.
/// `where` is the phone's name and address.
[[nodiscard]] std::string hintForSending(const std::exception& error, const std::string& where);
/// Where the phone has proved its key and then ended the connection before it answered the offer.
[[nodiscard]] std::string hintForNotTaken(const std::string& where);
[[nodiscard]] std::string hintForReceiving(const std::exception& error, const std::string& from);
/// Of the receive service as a whole, and of one of its connections: who that was comes first.
[[nodiscard]] std::string hintForServing(const std::exception& error);
[[nodiscard]] std::string hintForConnection(const Receiver::Failure& failure);

} // namespace orlinth::host
