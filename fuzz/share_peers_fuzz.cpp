#include "FuzzSupport.h"
#include "OrlinthCore/Share/ShareOutbox.h"

/// The list of phones that the share sheet reads: all of its entries or none, and what decodes is the same after
/// writing and reading.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using orlinth::ShareOutbox;
    using orlinth::fuzzing::demand;
    const orlinth::ByteView text = std::as_bytes(std::span(data, size));
    try {
        const std::vector<ShareOutbox::SharePeer> peers = ShareOutbox::decodePeers(text);
        demand(peers.size() == orlinth::parseJson(text).size(), "all entries");
        const std::string written = ShareOutbox::encodePeers(peers);
        demand(ShareOutbox::decodePeers(orlinth::asBytes(written)) == peers, "what decodes encodes to the same value");
    } catch (const orlinth::JsonError& error) {
        demand(!error.description().empty(), "an error says what it is");
    }
    return 0;
}
