#include "OrlinthHost/Phones/MetPhones.h"

#include "OrlinthHost/Phones/Whereabouts.h"

#include <algorithm>
#include <optional>
#include <vector>

namespace orlinth::host {
namespace {

AddressMemory memoryOfMeetings(const Home& home) {
    return {home.system.files, home.system.clock, home.system.log, home.dataDirectory()};
}

} // namespace

bool learnIfPaired(const Home& home, const PeerKey& phone, const std::function<void(AddressMemory&)>& learn) {
    bool isPaired = false;
    try {
        PeerStore peers = home.peers();
        peers.update([&](PeerBook& book) {
            isPaired = book.find(phone) != nullptr;
            if (isPaired) {
                AddressMemory memory = memoryOfMeetings(home);
                learn(memory);
            }
            return false;
        });
    } catch (const PeerStoreError&) {
        return false; // whoever looks for its record reports the store
    }
    return isPaired;
}

bool isAtAnothersAddress(const Home& home, const PeerRecord& phone) {
    const std::optional<HostAddress> host = HostAddress::parse(phone.peer_ip);
    if (!host) {
        return false;
    }
    const Meeting there = Whereabouts::look(home.system).meetingAt(*host);
    if (!there.mac || !there.network || there.mac == MacAddress::parse(phone.peer_mac)) {
        return false;
    }
    const std::vector<KnownAddress> met = memoryOfMeetings(home).addressesOf(phone.peer_pubkey);
    const auto isIts = [&there](const KnownAddress& known) { return known.mac == there.mac; };
    const auto isOfThisNetwork = [&there](const KnownAddress& known) {
        return known.mac && known.network == there.network;
    };
    return std::ranges::none_of(met, isIts) && std::ranges::any_of(met, isOfThisNetwork);
}

} // namespace orlinth::host
