#pragma once

#include "OrlinthCore/Receiving/Receiver.h"
#include "OrlinthHost/Service/PortError.h"
#include "orlinth/Program/Host.h"

#include <exception>
#include <string>

namespace orlinth::cli {

/// The second line of a failure: what the person can do about it; "" where nothing helps.
/// `where` is the phone's name and address.
[[nodiscard]] std::string hintForSending(const std::exception& error, const std::string& where);
/// The same of a phone that could not be reached: why, as far as that is known by now, and how to find out more. Sends
/// nothing.
[[nodiscard]] std::string hintForSending(host::Home& home, const std::exception& error, const PeerRecord& phone);
/// Where the phone has proved its key and then ended the connection before it answered the offer.
[[nodiscard]] std::string hintForNotTaken(const std::string& where);
/// What a person can do about a push that failed with this error; null if nothing is known about it.
[[nodiscard]] std::string hintForPush(const std::exception_ptr& error);
/// `folder` is where the file was to go.
[[nodiscard]] std::string hintForReceiving(const std::exception& error, const std::string& from,
                                           const platform::Path& folder);
/// Of a port that cannot be opened.
[[nodiscard]] std::string hintForPort(const host::PortError& error);
/// Of the receive service as a whole, and of one of its connections: who that was comes first.
[[nodiscard]] std::string hintForServing(const Host& host, const std::exception& error);
[[nodiscard]] std::string hintForConnection(const Host& host, const Receiver::Failure& failure);

/// How to start the service of this data folder. A service manager only knows that of the usual one.
[[nodiscard]] std::string hintToStartService(const Host& host);
/// Of what waits for a service that does not run.
[[nodiscard]] std::string serviceIsNotRunning(const Host& host);

/// Of the files that every command needs, the store of phones and this computer's key: which file it is, and what to do
/// about it. "" for any other failure.
[[nodiscard]] std::string hintForOwnFiles(const Host& host, const std::exception& error);

} // namespace orlinth::cli
