#pragma once

#include "OrlinthCore/Receiving/Receiver.h"
#include "OrlinthHost/Chores.h"
#include "OrlinthHost/Home.h"
#include "OrlinthHost/Phones/AddressBook.h"

#include <functional>
#include <map>
#include <utility>

namespace orlinth::host {

/// Remembers where paired phones connect from, with AddressMemory, and forgets phones that are not paired any more,
/// whoever has removed them. It changes no record: a phone may come from the address of a router, or by an IPv6 address
/// that it has for a day, and is not reached there.
///
/// A phone costs at most one look at the network and one write in a minute, however often it comes and wherever from.
///
/// Threading: called on the home's executor; works on a thread of its own.
class PhoneArrivals {
public:
    static constexpr Seconds interval = 60s;

    /// `home` outlives this. `onLearnt` is called on the home's executor whenever something new is remembered.
    PhoneArrivals(Home& home, std::function<void()> onLearnt)
        : home_(home), onLearnt_(std::move(onLearnt)), work_(home.system.queues, "orlinth.serve.addresses") {}
    PhoneArrivals(const PhoneArrivals&) = delete;
    PhoneArrivals& operator=(const PhoneArrivals&) = delete;

    /// It has just proved its key.
    void came(const Receiver::Arrival& arrival);
    /// The peer store may have changed.
    void peersChanged();
    /// Returns when everything before is done. The last call.
    [[nodiscard]] Task<> finish();

private:
    void learn(const PeerKey& phone, const HostAddress& host) const;
    void forgetOthers() const;

    Home& home_;
    const std::function<void()> onLearnt_;
    std::map<PeerKey, platform::Clock::Instant> learntAt_; ///< of those within the interval
    Chores work_;                                          ///< in order: a phone is learnt of before it is forgotten
};

} // namespace orlinth::host
