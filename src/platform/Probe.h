#pragma once

#include "base/Time.h"
#include "platform/IpAddress.h"
#include "platform/Network.h"
#include "platform/Task.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <system_error>
#include <variant>

namespace orlinth::platform {

/// Why a packet was not delivered, and who says so (RFC 792 for IPv4, RFC 4443 for IPv6).
struct IcmpReport {
    std::uint8_t type = 0; ///< IPv4: 3, destination unreachable; IPv6: 1
    std::uint8_t code =
        0;          ///< of that type: 3/1 host unreachable, 3/13 administratively prohibited, 1/3 no such address
    IpAddress from; ///< the phone, a router, or this computer itself if nobody answers on the link

    friend bool operator==(const IcmpReport&, const IcmpReport&) = default;
};

/// The connection could not be opened.
struct ProbeFailure {
    std::error_code code;           ///< what the system gives as the reason; see connectFailureOf()
    std::optional<IcmpReport> icmp; ///< absent if no such report came: a refusal by the port itself, no route

    friend bool operator==(const ProbeFailure&, const ProbeFailure&) = default;
};

/// Nothing came back within the limit.
struct ProbeTimeout {
    friend bool operator==(const ProbeTimeout&, const ProbeTimeout&) = default;
};

/// The port of the discard service (RFC 863), at which nobody listens: a system that is there refuses connections to
/// it.
inline constexpr std::uint16_t discardPort = 9;

/// Never a null stream.
using ProbeResult = std::variant<std::unique_ptr<Stream>, ProbeFailure, ProbeTimeout>;

/// Connections that are opened to find out what is at an address: unlike Network::connect() it reports every piece of
/// evidence, and takes addresses alone, so that no name is ever asked for.
class Probe {
public:
    virtual ~Probe() = default;
    /// Opens a TCP connection for at most `limit`, which is more than zero; the stream's work runs on `executor`, with
    /// Nagle's algorithm off. Leaves nothing behind after a failure or a timeout. An address whose zone names no
    /// interface is a failure with ENODEV.
    /// @throws Cancelled; SystemError if this computer has no room for another connection
    [[nodiscard]] virtual Task<ProbeResult> connect(IpAddress address, std::uint16_t port, Seconds limit,
                                                    Executor executor) = 0;
    /// Sends an empty datagram (UDP) to the discard port of the address, and returns false if a filter of this computer
    /// forbids it at once (EPERM). A filter on the way, an address without a route, and anything else that goes wrong
    /// say nothing about that: true. Does not block; any thread.
    [[nodiscard]] virtual bool maySendDatagram(const IpAddress& address) const = 0;
};

} // namespace orlinth::platform
