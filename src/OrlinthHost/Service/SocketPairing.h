#pragma once

#include "OrlinthHost/Home.h"
#include "OrlinthHost/Service/ServiceApi.h"
#include "platform/Network.h"

namespace orlinth::host {

/// A pairing for the program at the other end of a connection, to which it belongs: who has the connection gets the
/// code, hears how it goes, and confirms; when the connection ends, so does the pairing. PairingMessage.h has the
/// lines.
///
/// The code goes in memory of its own, behind the first line, so that it is in no line that somebody might log.
///
/// Threading: on the home's executor.
class SocketPairing {
public:
    /// What is referred to outlives this.
    SocketPairing(Home& home, ServiceApi& api, platform::Stream& stream, ServicePairing::Ticket ticket)
        : home_(home), api_(api), stream_(stream), ticket_(std::move(ticket)) {}
    SocketPairing(const SocketPairing&) = delete;
    SocketPairing& operator=(const SocketPairing&) = delete;

    /// Until it is over, and that is said, or the connection ends. Once.
    /// @throws platform::Cancelled; HostError, SystemError: the other end is gone
    [[nodiscard]] Task<> run();

private:
    [[nodiscard]] Task<> sendCode();
    [[nodiscard]] Task<> tellChanges(PairingView told);
    [[nodiscard]] Task<> listen();

    Home& home_;
    ServiceApi& api_;
    platform::Stream& stream_;
    ServicePairing::Ticket ticket_;
};

} // namespace orlinth::host
