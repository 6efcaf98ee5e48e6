#include "OrlinthHost/Service/PhoneArrivals.h"

#include "OrlinthHost/Phones/MetPhones.h"
#include "OrlinthHost/Phones/Whereabouts.h"
#include "platform/IpAddress.h"

#include <asio/post.hpp>

#include <optional>
#include <vector>

namespace orlinth::host {

namespace {

AddressMemory arrivalMemory(const Home& home) {
    return {home.system.files, home.system.clock, home.system.log, home.dataDirectory()};
}

} // namespace

void PhoneArrivals::came(const Receiver::Arrival& arrival) {
    const std::optional<HostAddress> host = HostAddress::parse(platform::addressOfEndpoint(arrival.remoteEndpoint));
    if (!host) {
        return; // a tunnel's end on this computer, for example
    }
    const platform::Clock::Instant now = home_.system.clock.now();
    std::erase_if(learntAt_, [now](const auto& one) { return now - one.second >= interval; });
    const PeerKey phone = arrival.phone.peer_pubkey;
    if (learntAt_.try_emplace(phone, now).second) {
        work_.add([this, phone, host = *host] { learn(phone, host); });
    }
}

void PhoneArrivals::peersChanged() {
    work_.add([this] { forgetOthers(); });
}

Task<> PhoneArrivals::finish() {
    co_await work_.finish();
}

/// On the thread.
void PhoneArrivals::learn(const PeerKey& phone, const HostAddress& host) const {
    const Meeting meeting = Whereabouts::look(home_.system).meetingAt(host);
    const bool isLearnt = learnIfPaired(home_, phone, [&](AddressMemory& memory) { memory.came(phone, meeting); });
    if (isLearnt) {
        asio::post(home_.executor, onLearnt_);
    }
}

/// On the thread.
void PhoneArrivals::forgetOthers() const {
    try {
        home_.peers().update([&](PeerBook& book) { // nobody is paired meanwhile
            std::vector<PeerKey> paired;
            for (const PeerRecord& record : book.peers) {
                paired.push_back(record.peer_pubkey);
            }
            arrivalMemory(home_).keepOnly(paired);
            return false;
        });
    } catch (const PeerStoreError&) {
        return; // nobody knows who is paired; whoever looks for a record reports the store
    }
}

} // namespace orlinth::host
