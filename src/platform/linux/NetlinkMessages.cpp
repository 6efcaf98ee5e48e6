#include "platform/linux/NetlinkMessages.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <utility>

namespace orlinth::platform {
namespace {

constexpr std::size_t alignment = 4; // of messages and of attributes

constexpr std::size_t aligned(std::size_t size) noexcept {
    return (size + alignment - 1) / alignment * alignment;
}

/// What does not fit its place: the message that it is in is left out.
struct Damaged {};

/// Takes a structure of the kernel's off the front; it may lie unaligned.
template <typename Structure>
Structure taken(ByteView& bytes) {
    if (bytes.size() < sizeof(Structure)) {
        throw Damaged();
    }
    Structure structure{};
    std::memcpy(&structure, bytes.data(), sizeof structure);
    bytes = bytes.subspan(std::min(aligned(sizeof structure), bytes.size()));
    return structure;
}

/// Calls `use` with the kind and the content of each attribute.
template <typename Use>
void forEachAttribute(ByteView bytes, Use use) {
    while (!bytes.empty()) {
        ByteView rest = bytes;
        const auto header = taken<rtattr>(rest);
        if (header.rta_len < sizeof header || header.rta_len > bytes.size()) {
            throw Damaged();
        }
        use(header.rta_type & NLA_TYPE_MASK, bytes.subspan(sizeof header, header.rta_len - sizeof header));
        bytes = bytes.subspan(std::min(aligned(header.rta_len), bytes.size()));
    }
}

template <typename Number>
Number numberOf(ByteView content) {
    if (content.size() != sizeof(Number)) {
        throw Damaged();
    }
    Number number{};
    std::memcpy(&number, content.data(), sizeof number);
    return number;
}

bool isIp(int family) noexcept {
    return family == AF_INET || family == AF_INET6;
}

/// `family` is one of the two.
IpAddress addressOf(int family, ByteView content) {
    if (family == AF_INET) {
        return numberOf<Ipv4Address>(content);
    }
    return Ipv6Address{.bytes = numberOf<std::array<std::uint8_t, 16>>(content), .zone = {}};
}

NeighbourState stateOf(std::uint16_t state) noexcept {
    switch (state) {
    case NUD_INCOMPLETE:
        return NeighbourState::incomplete;
    case NUD_REACHABLE:
        return NeighbourState::reachable;
    case NUD_STALE:
        return NeighbourState::stale;
    case NUD_DELAY:
        return NeighbourState::delay;
    case NUD_PROBE:
        return NeighbourState::probe;
    case NUD_FAILED:
        return NeighbourState::failed;
    case NUD_NOARP:
        return NeighbourState::noArp;
    case NUD_PERMANENT:
        return NeighbourState::permanent;
    default:
        return NeighbourState::unknown;
    }
}

/// The readers of one kind return nothing for what is not wanted.
std::optional<NetlinkNeighbour> neighbourOf(ByteView bytes, bool isGone) {
    const auto header = taken<ndmsg>(bytes);
    if (!isIp(header.ndm_family)) {
        return std::nullopt; // of a bridge, for example
    }
    NetlinkNeighbour neighbour{.isGone = isGone, .entry = {}};
    neighbour.entry.interfaceIndex = static_cast<std::uint32_t>(header.ndm_ifindex);
    neighbour.entry.state = stateOf(header.ndm_state);
    bool hasAddress = false;
    forEachAttribute(bytes, [&](int kind, ByteView content) {
        if (kind == NDA_DST) {
            neighbour.entry.address = addressOf(header.ndm_family, content);
            hasAddress = true;
        } else if (kind == NDA_LLADDR) {
            neighbour.entry.hardware = toBytes(content);
        } else if (kind == NDA_CACHEINFO) {
            // The kernel counts in USER_HZ, a hundred a second wherever this program runs.
            const auto info = numberOf<nda_cacheinfo>(content);
            neighbour.entry.confirmedAge = Seconds(info.ndm_confirmed / 100.0);
        }
    });
    return hasAddress ? std::optional(std::move(neighbour)) : std::nullopt;
}

/// A next hop of any family (struct rtvia).
std::optional<IpAddress> viaOf(ByteView content) {
    constexpr std::size_t familyBytes = 2;
    if (content.size() < familyBytes) {
        throw Damaged();
    }
    const auto family = numberOf<std::uint16_t>(content.first(familyBytes));
    if (!isIp(family)) {
        return std::nullopt;
    }
    return addressOf(family, content.subspan(familyBytes));
}

std::optional<NetlinkRoute> routeOf(ByteView bytes, bool isGone) {
    const auto header = taken<rtmsg>(bytes);
    if (!isIp(header.rtm_family)) {
        return std::nullopt;
    }
    NetlinkRoute route;
    route.isGone = isGone;
    route.type = header.rtm_type;
    forEachAttribute(bytes, [&](int kind, ByteView content) {
        if (kind == RTA_GATEWAY) {
            route.gateway = addressOf(header.rtm_family, content);
        } else if (kind == RTA_VIA) {
            route.gateway = viaOf(content);
        } else if (kind == RTA_PREFSRC) {
            route.source = addressOf(header.rtm_family, content);
        } else if (kind == RTA_OIF) {
            route.interfaceIndex = numberOf<std::uint32_t>(content);
        }
    });
    return route;
}

std::optional<NetlinkAddress> interfaceAddressOf(ByteView bytes, bool isGone) {
    const auto header = taken<ifaddrmsg>(bytes);
    if (!isIp(header.ifa_family)) {
        return std::nullopt;
    }
    std::optional<IpAddress> own;
    std::optional<IpAddress> other; // the far end of a point-to-point link, else our own as well
    forEachAttribute(bytes, [&](int kind, ByteView content) {
        if (kind == IFA_LOCAL) {
            own = addressOf(header.ifa_family, content);
        } else if (kind == IFA_ADDRESS) {
            other = addressOf(header.ifa_family, content);
        }
    });
    if (!own && !other) {
        return std::nullopt;
    }
    return NetlinkAddress{.isGone = isGone,
                          .interfaceIndex = header.ifa_index,
                          .address = own ? *own : *other,
                          .prefixBits = header.ifa_prefixlen};
}

std::optional<NetlinkLink> linkOf(ByteView bytes, bool isGone) {
    const auto header = taken<ifinfomsg>(bytes);
    if (header.ifi_family != AF_UNSPEC) {
        return std::nullopt; // a bridge's port: of its interface there is a message as well
    }
    NetlinkLink link;
    link.isGone = isGone;
    link.interfaceIndex = static_cast<std::uint32_t>(header.ifi_index);
    link.flags = header.ifi_flags;
    link.hardware = header.ifi_type;
    forEachAttribute(bytes, [&](int kind, ByteView content) {
        if (kind == IFLA_IFNAME) {
            const std::string name = toText(content);
            link.name = name.substr(0, name.find('\0'));
            if (link.name.empty() || link.name.size() >= IF_NAMESIZE) {
                throw Damaged();
            }
        }
    });
    return link;
}

/// NLMSG_ERROR and NLMSG_DONE both begin with a negative errno.
NetlinkEnd endOf(ByteView bytes) {
    constexpr int greatestErrno = 4095;
    const int number = taken<int>(bytes);
    const bool isErrno = number <= 0 && number >= -greatestErrno;
    return {.errorNumber = isErrno ? -number : EPROTO};
}

/// Puts a body that was read into `message`; false if there is none.
template <typename Body>
bool put(NetlinkMessage& message, std::optional<Body> body) {
    if (body) {
        message.body = std::move(*body);
    }
    return body.has_value();
}

/// Whether the message is of a kind that is wanted; `content` is what follows its header.
bool readBody(int kind, ByteView content, NetlinkMessage& message) {
    switch (kind) {
    case RTM_NEWNEIGH:
    case RTM_DELNEIGH:
        return put(message, neighbourOf(content, kind == RTM_DELNEIGH));
    case RTM_NEWROUTE:
    case RTM_DELROUTE:
        return put(message, routeOf(content, kind == RTM_DELROUTE));
    case RTM_NEWADDR:
    case RTM_DELADDR:
        return put(message, interfaceAddressOf(content, kind == RTM_DELADDR));
    case RTM_NEWLINK:
    case RTM_DELLINK:
        return put(message, linkOf(content, kind == RTM_DELLINK));
    case NLMSG_ERROR:
    case NLMSG_DONE:
        message.body = endOf(content);
        return true;
    case NLMSG_OVERRUN:
        message.body = NetlinkOverrun();
        return true;
    default:
        return false;
    }
}

void append(Bytes& bytes, const void* from, std::size_t size) {
    const auto* const first = static_cast<const std::byte*>(from);
    bytes.insert(bytes.end(), first, first + size);
    bytes.resize(aligned(bytes.size()));
}

void appendAttribute(Bytes& bytes, unsigned short kind, const void* content, std::size_t size) {
    const rtattr header{.rta_len = static_cast<unsigned short>(sizeof(rtattr) + size), .rta_type = kind};
    append(bytes, &header, sizeof header);
    append(bytes, content, size);
}

/// Everything behind the header is there: now its length is known.
Bytes withHeader(std::uint16_t kind, int flags, std::uint32_t sequence, const Bytes& content) {
    const nlmsghdr header{.nlmsg_len = static_cast<std::uint32_t>(sizeof(nlmsghdr) + content.size()),
                          .nlmsg_type = kind,
                          .nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags),
                          .nlmsg_seq = sequence,
                          .nlmsg_pid = 0};
    Bytes message;
    append(message, &header, sizeof header);
    append(message, content.data(), content.size());
    return message;
}

} // namespace

NetlinkDatagram parseNetlink(ByteView datagram) {
    NetlinkDatagram parsed;
    while (!datagram.empty()) {
        ByteView content = datagram;
        nlmsghdr header{};
        try {
            header = taken<nlmsghdr>(content);
        } catch (const Damaged&) {
            parsed.isDamaged = true;
            break;
        }
        if (header.nlmsg_len < sizeof header || header.nlmsg_len > datagram.size()) {
            parsed.isDamaged = true; // where the next one begins is not known any more
            break;
        }
        NetlinkMessage message{.sequence = header.nlmsg_seq,
                               .isMultipart = (header.nlmsg_flags & NLM_F_MULTI) != 0,
                               .isInterrupted = (header.nlmsg_flags & NLM_F_DUMP_INTR) != 0,
                               .body = {}};
        try {
            if (readBody(header.nlmsg_type, content.first(header.nlmsg_len - sizeof header), message)) {
                parsed.messages.push_back(std::move(message));
            }
        } catch (const Damaged&) {
            parsed.isDamaged = true;
        }
        datagram = datagram.subspan(std::min(aligned(header.nlmsg_len), datagram.size()));
    }
    return parsed;
}

Bytes neighbourListRequest(std::uint32_t sequence) {
    const ndmsg header{};
    Bytes content;
    append(content, &header, sizeof header);
    return withHeader(RTM_GETNEIGH, NLM_F_DUMP, sequence, content);
}

Bytes routeRequest(std::uint32_t sequence, const IpAddress& address, std::uint32_t interfaceIndex) {
    const auto* const v4 = std::get_if<Ipv4Address>(&address);
    const auto* const v6 = std::get_if<Ipv6Address>(&address);
    const auto destination =
        v4 != nullptr ? ByteView(std::as_bytes(std::span(*v4))) : ByteView(std::as_bytes(std::span(v6->bytes)));
    rtmsg header{};
    header.rtm_family = v4 != nullptr ? AF_INET : AF_INET6;
    header.rtm_dst_len = static_cast<unsigned char>(destination.size() * 8);
    Bytes content;
    append(content, &header, sizeof header);
    appendAttribute(content, RTA_DST, destination.data(), destination.size());
    if (interfaceIndex != 0) {
        appendAttribute(content, RTA_OIF, &interfaceIndex, sizeof interfaceIndex);
    }
    return withHeader(RTM_GETROUTE, 0, sequence, content);
}

} // namespace orlinth::platform
