#pragma once

#include "base/Bytes.h"
#include "platform/Probe.h"

#include <optional>
#include <vector>

namespace orlinth::platform {

/// One entry of a socket's error queue (IP_RECVERR in ip(7), IPV6_RECVERR in ipv6(7)).
struct SocketErrorReport {
    int errorNumber = 0;            ///< the errno that goes with it
    std::optional<IcmpReport> icmp; ///< absent for an error that arose in this computer without such a message

    friend bool operator==(const SocketErrorReport&, const SocketErrorReport&) = default;
};

/// Reads the control messages that recvmsg(2) with MSG_ERRQUEUE has filled in; nothing if there is no whole report
/// among them. A report whose sender is missing or of another family has no `icmp`. The sender has no zone.
[[nodiscard]] std::optional<SocketErrorReport> parseErrorQueueControl(ByteView control);

/// From now on the socket keeps reports; or from now on it does not, and those it has are gone. Takes sockets of IPv4
/// and IPv6. @throws SystemError
void keepErrorReports(int socket, bool isIpv6, bool keeps);

/// Takes all reports that are there now, the oldest first; never waits.
[[nodiscard]] std::vector<SocketErrorReport> takeErrorReports(int socket);

} // namespace orlinth::platform
