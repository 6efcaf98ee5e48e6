#include "platform/ConnectFailure.h"

#include <asio/error.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

namespace orlinth::platform {
namespace {

/// What connect(2) says, or an ICMP message that it passes on.
constexpr std::array<std::pair<int, ConnectFailure>, 8> failures{{
    {ETIMEDOUT, ConnectFailure::timedOut},
    {ECONNREFUSED, ConnectFailure::refused},
    {EHOSTUNREACH, ConnectFailure::hostUnreachable}, // also: nobody answers ARP or neighbour discovery
    {EHOSTDOWN, ConnectFailure::hostUnreachable},
    {ENONET, ConnectFailure::hostUnreachable}, // "host isolated"
    {ENETUNREACH, ConnectFailure::networkUnreachable},
    {ENETDOWN, ConnectFailure::networkUnreachable},
    {EADDRNOTAVAIL, ConnectFailure::networkUnreachable}, // no address of our own yet that could be used to get there
}};

} // namespace

ConnectFailure connectFailureOf(const std::error_code& code) noexcept {
    if (code.category() == asio::error::get_netdb_category()) {
        return ConnectFailure::unknownName;
    }
    const auto* row = std::ranges::find_if(failures, [&code](const auto& failure) {
        return code == std::error_condition(failure.first, std::generic_category());
    });
    return row != failures.end() ? row->second : ConnectFailure::other;
}

} // namespace orlinth::platform
