#pragma once

#include "OrlinthHost/Reach/Cause.h"

#include <cstdint>
#include <optional>

namespace orlinth::host {

/// What was seen of the way to one phone's recorded address. Plain values; whatever was not measured is absent, and
/// decides nothing.
struct Evidence {
    /// How the TCP connection to the phone's port began.
    enum class Connect {
        connected,
        refused,            ///< ECONNREFUSED
        timedOut,           ///< nothing within the time limit (8.6 s), or ETIMEDOUT
        hostUnreachable,    ///< EHOSTUNREACH
        networkUnreachable, ///< ENETUNREACH
        accessDenied,       ///< EACCES: a route prohibits it, or ICMPv6 1/1 came
        notPermitted,       ///< EPERM: a filter of this computer
        invalid,            ///< EINVAL: a route is a black hole, or an address without its interface
        failed              ///< anything else
    };
    /// An error number of connect(), 0 for a connection.
    [[nodiscard]] static Connect connectOf(int errorNumber) noexcept;

    /// An ICMP message "destination unreachable" (RFC 792; RFC 4443 §3.1) that came for this connection.
    struct Icmp {
        enum class Sender {
            ownAddress, ///< this computer: nobody answered the question for the hardware address, or its filter rejects
            phone,      ///< the address that we connect to
            router      ///< anybody else
        };
        Sender sender = Sender::ownAddress;
        std::uint8_t type = 0; ///< 3; in IPv6 1
        std::uint8_t code = 0;
    };

    /// The entry of the kernel's neighbour table for the address, once the attempt was over.
    struct Neighbour {
        enum class State {
            incomplete, ///< has been asked for, and has not answered yet
            valid,      ///< reachable, stale, or being checked: a hardware address is known
            failed      ///< does not answer
        };
        enum class Device {
            unknown, ///< nothing was learnt about the phone in this network
            phone,   ///< the hardware address that the phone had when it last proved its key in this network
            other,   ///< another one than that
            gateway  ///< that of the gateway, which is at another address: it answers for everybody
        };
        State state = State::valid;
        Device device = Device::unknown;
        bool wasConfirmedSince = false; ///< it has answered since the attempt began
    };

    /// What the kernel says of the way to the address.
    struct Route {
        enum class Way {
            none,   ///< none, or one that is unreachable, prohibited, a black hole or without its interface
            onLink, ///< the address is in a network of this computer
            gateway ///< behind a router
        };
        enum class Interface { real, tunnel, containerBridge };
        Way way = Way::onLink;
        Interface interface = Interface::real;
        bool isInRealNetwork = false; ///< the address is in the network of a real interface, whatever the way is
    };

    /// What the handshake came to, of which no third message is ever sent.
    enum class Proof {
        phonesKey,
        otherKey,
        otherProtocol, ///< what came was no answer to the first message, or the connection ended
        silence        ///< nothing came for 3 s
    };

    bool hasNetwork = true; ///< an interface is up and running and has an IPv4 address that is not link-local
    std::optional<Connect> connect = {};
    std::optional<Icmp> icmp = {}; ///< the last one
    std::optional<Neighbour> neighbour = {};
    std::optional<Route> route = {};
    std::optional<Proof> proof = {};
    bool isProvedElsewhere = false;   ///< the phone's key was proved at another address
    bool isDatagramForbidden = false; ///< sending a UDP datagram to the address failed at once, with EPERM
    bool isOtherPortRefused = false;  ///< a connection to a port that nobody uses (9) was refused by the address
    bool isGatewayHere = false;       ///< the gateway answers
    bool isWireless = false;          ///< the way leads over Wi-Fi
    bool hasMetNobodyElse = false;    ///< a search of the network met nobody but the gateway
    bool wasPhoneEverMetHere = false; ///< in this network the phone has proved its key before
};

/// The cause that fits what was seen: the most certain one first, and where two would fit, the one that explains the
/// other. Cause::none if the phone is here; never a guess: where the evidence does not decide, silent or unknown.
[[nodiscard]] Cause diagnose(const Evidence& evidence) noexcept;

} // namespace orlinth::host
