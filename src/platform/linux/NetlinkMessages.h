#pragma once

#include "base/Bytes.h"
#include "platform/IpAddress.h"
#include "platform/Neighbours.h"

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace orlinth::platform {

/// What the kernel says of its network in datagrams of rtnetlink(7), as values. Nothing here has a socket: the bytes
/// come from somebody else, may be anything, and are never looked at in place.

/// RTM_NEWNEIGH, RTM_DELNEIGH. The entry's interface is a number yet, and its address has no zone.
struct NetlinkNeighbour {
    bool isGone = false;
    Neighbour entry;
};

/// RTM_NEWROUTE, RTM_DELROUTE.
struct NetlinkRoute {
    bool isGone = false;
    std::uint8_t type = 0; ///< RTN_UNICAST, RTN_LOCAL, RTN_UNREACHABLE, ...
    std::optional<IpAddress> gateway;
    std::optional<IpAddress> source;
    std::uint32_t interfaceIndex = 0; ///< 0 if it leaves by none
};

/// RTM_NEWADDR, RTM_DELADDR: an address of this computer.
struct NetlinkAddress {
    bool isGone = false;
    std::uint32_t interfaceIndex = 0;
    IpAddress address; ///< of a point-to-point link our end
    int prefixBits = 0;
};

/// RTM_NEWLINK, RTM_DELLINK.
struct NetlinkLink {
    bool isGone = false;
    std::uint32_t interfaceIndex = 0;
    std::string name;
    std::uint32_t flags = 0;    ///< IFF_UP, IFF_RUNNING, ...
    std::uint16_t hardware = 0; ///< ARPHRD_ETHER, ARPHRD_NONE, ...
};

/// NLMSG_ERROR and NLMSG_DONE: the end of an answer.
struct NetlinkEnd {
    int errorNumber = 0; ///< an errno, or 0 if all went well; EPROTO for a number that is none
};

/// NLMSG_OVERRUN: messages were lost.
struct NetlinkOverrun {};

/// One message of those kinds.
struct NetlinkMessage {
    std::uint32_t sequence = 0; ///< of the request that it answers; 0 of an event
    bool isMultipart = false;   ///< more follow, up to a NetlinkEnd
    bool isInterrupted = false; ///< the table changed while it was listed: the list may have gaps
    std::variant<NetlinkNeighbour, NetlinkRoute, NetlinkAddress, NetlinkLink, NetlinkEnd, NetlinkOverrun> body;
};

struct NetlinkDatagram {
    std::vector<NetlinkMessage> messages;
    /// Some of the datagram could not be read, and is not among the messages: a length that leads out of it or is too
    /// short, an address whose length is not that of its family.
    bool isDamaged = false;
};

/// Reads a whole datagram. Messages and attributes of other kinds are left out, as are addresses of families other than
/// IPv4 and IPv6 and entries without an address; what is damaged is left out and reported. Numbers are in this
/// machine's byte order, as netlink has them.
[[nodiscard]] NetlinkDatagram parseNetlink(ByteView datagram);

/// The request for all entries of the neighbour table (RTM_GETNEIGH).
[[nodiscard]] Bytes neighbourListRequest(std::uint32_t sequence);

/// The request for the way to an address (RTM_GETROUTE); 0 for any interface. The address's zone is not looked at.
[[nodiscard]] Bytes routeRequest(std::uint32_t sequence, const IpAddress& address, std::uint32_t interfaceIndex);

} // namespace orlinth::platform
