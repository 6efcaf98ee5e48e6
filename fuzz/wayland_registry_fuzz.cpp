#include "Demand.h"
#include "platform/linux/WaylandRegistry.h"

namespace {

using namespace orlinth;
using namespace orlinth::platform;
using fuzzing::demand;

WaylandRegistry taken(ByteView bytes, std::size_t pieceBytes) {
    WaylandRegistry registry;
    while (!bytes.empty()) {
        const ByteView piece = bytes.first(std::min(pieceBytes, bytes.size()));
        registry.take(piece);
        bytes = bytes.subspan(piece.size());
    }
    return registry;
}

} // namespace

/// Anything may come from a compositor: what is read of it is the same however it is cut, and has its limits.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using State = WaylandRegistry::State;
    const ByteView bytes = std::as_bytes(std::span(data, size));
    const WaylandRegistry whole = taken(bytes, bytes.size());
    for (const std::size_t pieceBytes : {std::size_t{1}, std::size_t{7}, std::size_t{4099}}) {
        const WaylandRegistry cut = taken(bytes, pieceBytes);
        demand(cut.state() == whole.state() && cut.interfaces() == whole.interfaces(), "cuts change nothing");
    }
    demand(whole.interfaces().size() <= WaylandRegistry::maxInterfaces + 1, "the list is limited");
    for (const std::string& interface : whole.interfaces()) {
        demand(interface.size() < WaylandRegistry::maxMessageBytes && interface.find('\0') == std::string::npos,
               "a name is a text of one message");
    }
    constexpr std::size_t leastBytes = 12; // of the message that ends the list
    demand(whole.state() != State::complete || size >= leastBytes, "a list has an end");
    demand(whole.state() != State::listing || size <= WaylandRegistry::maxBytes, "nobody is listened to for ever");
    return 0;
}
