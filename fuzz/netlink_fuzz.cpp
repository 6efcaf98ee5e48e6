#include "Demand.h"
#include "platform/linux/NetlinkMessages.h"

#include <cerrno>
#include <net/if.h>

namespace {

using namespace orlinth;
using namespace orlinth::platform;
using fuzzing::demand;

void check(const NetlinkNeighbour& neighbour, std::size_t size) {
    demand(neighbour.entry.hardware.size() < size, "a hardware address is part of the message");
    demand(!neighbour.entry.confirmedAge || *neighbour.entry.confirmedAge >= 0s, "no age is negative");
}
void check(const NetlinkLink& link, std::size_t) {
    demand(link.name.size() < IF_NAMESIZE, "a name is one that the kernel gives");
}
void check(const NetlinkEnd& end, std::size_t) {
    demand(end.errorNumber >= 0 && end.errorNumber < 4096, "an error is an errno");
}
template <typename Body>
void check(const Body&, std::size_t) {} // numbers alone, of which each is possible

} // namespace

/// Any datagram is read; what is read makes sense, and is the same whatever follows a part that is whole.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const ByteView datagram = std::as_bytes(std::span(data, size));
    const NetlinkDatagram parsed = parseNetlink(datagram);
    constexpr std::size_t headerBytes = 16;
    demand(parsed.messages.size() <= size / headerBytes, "each message has a header");
    for (const NetlinkMessage& message : parsed.messages) {
        std::visit([size](const auto& body) { check(body, size); }, message.body);
    }
    if (!parsed.isDamaged && size % 4 == 0) {
        const NetlinkDatagram twice = parseNetlink(concatenate({datagram, datagram}));
        demand(!twice.isDamaged && twice.messages.size() == 2 * parsed.messages.size(),
               "whole datagrams follow another");
    }
    if (size > 0) {
        const NetlinkDatagram shortened = parseNetlink(datagram.first(size - 1));
        demand(shortened.messages.size() <= parsed.messages.size(), "less has no more messages");
    }
    return 0;
}
