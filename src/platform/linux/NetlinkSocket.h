#pragma once

#include "platform/linux/Descriptor.h"
#include "platform/linux/NetlinkMessages.h"

#include <asio/posix/stream_descriptor.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace orlinth::platform {

/// A socket of rtnetlink(7), which never waits. Used on one thread at a time.
class NetlinkSocket {
public:
    /// Hears of what happens to these groups (RTMGRP_NEIGH, ...); 0 for requests alone. @throws SystemError
    explicit NetlinkSocket(std::uint32_t groups = 0);

    /// @throws SystemError
    void send(ByteView request);
    /// The next datagram of the kernel; nothing if there is none now.
    /// @throws SystemError; ENOBUFS once after datagrams were lost, EMSGSIZE for one of more than 32 KiB
    [[nodiscard]] std::optional<NetlinkDatagram> receive();

    /// Lets somebody wait for this socket, by a descriptor that is his. @throws SystemError
    void lendTo(asio::posix::stream_descriptor& waiter) const;

private:
    detail::Descriptor socket_;
    Bytes buffer_;
};

/// An answer of the kernel's.
struct NetlinkAnswer {
    std::vector<NetlinkMessage> messages; ///< without the end
    int errorNumber = 0;                  ///< what the kernel has refused the request with; 0 if it has not
    bool isInterrupted = false;           ///< the table changed while it was listed
};

/// Asks the kernel, which answers within the calls: nothing is waited for. `request` has this sequence number.
/// @throws SystemError if it cannot be asked; ENOBUFS if parts of the answer were lost, EBADMSG if they make no sense
[[nodiscard]] NetlinkAnswer askKernel(ByteView request, std::uint32_t sequence);

/// The name of an interface; "" if there is none of this number now.
[[nodiscard]] std::string interfaceName(std::uint32_t index);

/// The number of the interface that an address's zone names: 0 without a zone, nothing if there is no such interface.
[[nodiscard]] std::optional<std::uint32_t> zoneIndex(const IpAddress& address);

/// The address with the interface as its zone, if it is one of IPv6 that needs one; else as it is.
[[nodiscard]] IpAddress withZone(IpAddress address, const std::string& interface);

} // namespace orlinth::platform
