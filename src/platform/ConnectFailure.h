#pragma once

#include <system_error>

namespace orlinth::platform {

/// Why a connection could not be opened, as far as a caller decides by it.
enum class ConnectFailure {
    timedOut,           ///< the system gave up waiting for an answer
    refused,            ///< nothing listens on the port
    hostUnreachable,    ///< nothing answers at the address: its device is off, asleep or somewhere else
    networkUnreachable, ///< this computer has no way to the address's network: no link, no route, no address yet
    unknownName,        ///< the name does not resolve
    other
};

/// What Network::connect() failed with, by the code of its SystemError. The error's text says the same in the words of
/// the user's language and is of no use for decisions.
[[nodiscard]] ConnectFailure connectFailureOf(const std::error_code& code) noexcept;

} // namespace orlinth::platform
