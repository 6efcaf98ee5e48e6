#pragma once

#include "base/Bytes.h"
#include "base/Time.h"
#include "platform/IpAddress.h"
#include "platform/Task.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace orlinth::platform {

/// What the system knows of whether a neighbour answers (RFC 4861 §7.3.2, which Linux follows for ARP too).
enum class NeighbourState {
    incomplete, ///< asked for its hardware address, no answer yet
    reachable,  ///< confirmed a short while ago
    stale,      ///< confirmed long ago; nothing is known against it
    delay,      ///< used while stale; about to be asked
    probe,      ///< being asked
    failed,     ///< did not answer
    noArp,      ///< needs no asking: multicast, loopback, a tunnel's other end
    permanent,  ///< entered by an administrator
    unknown     ///< none of these
};

/// One entry of the system's table of devices on the same link (ARP for IPv4, neighbour discovery for IPv6).
struct Neighbour {
    IpAddress address; ///< a link-local one of IPv6 has the interface's name as its zone, others have none
    std::uint32_t interfaceIndex = 0; ///< the system's number of the interface
    std::string interface;            ///< its name, for example "wlan0"; "" if it has gone meanwhile
    Bytes hardware;                   ///< the link-layer address, of Ethernet 6 bytes; empty if it is not known
    NeighbourState state = NeighbourState::unknown;
    /// How long ago it was last confirmed, rounded down to 10 ms, of ticks of up to 10 ms. For an entry that has never
    /// been confirmed the system makes up a time in the past, so this counts only against the age of what is known.
    std::optional<Seconds> confirmedAge;

    friend bool operator==(const Neighbour&, const Neighbour&) = default;
};

/// An entry is new, or its state or its hardware address has changed.
struct NeighbourChanged {
    Neighbour now;
};
/// An entry was removed.
struct NeighbourGone {
    Neighbour last;
};
/// Changes came faster than they were taken and some are lost: this is the whole table instead.
struct NeighboursAnew {
    std::vector<Neighbour> now;
};
using NeighbourEvent = std::variant<NeighbourChanged, NeighbourGone, NeighboursAnew>;

/// The table is watched for as long as this lives. Destroying it, also in its own call, ends that: nothing is called
/// any more.
///
/// Threading: made and destroyed on its executor, or while nobody runs that. It is work that keeps the executor
/// running.
class NeighbourWatch {
public:
    virtual ~NeighbourWatch() = default;
};

/// The devices that this computer has met on its links. Nothing here sends a packet, and nothing needs privileges.
class Neighbours {
public:
    virtual ~Neighbours() = default;
    /// The whole table, of all interfaces and both kinds of addresses, in the system's own order. Does not block; any
    /// thread. @throws SystemError
    [[nodiscard]] virtual std::vector<Neighbour> list() const = 0;
    /// Calls `onEvent` on `executor` for each change from now on, in order. What is in the table already is not told:
    /// to miss nothing, watch first and list then.
    /// @throws SystemError if the table cannot be watched, which says nothing against listing it now and then
    [[nodiscard]] virtual std::unique_ptr<NeighbourWatch> watch(Executor executor,
                                                                std::function<void(const NeighbourEvent&)> onEvent) = 0;
};

} // namespace orlinth::platform
