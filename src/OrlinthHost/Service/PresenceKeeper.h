#pragma once

#include "OrlinthHost/Home.h"
#include "OrlinthHost/Outbox/OutboxSender.h"
#include "OrlinthHost/Service/Presence.h"

#include <functional>
#include <vector>

namespace orlinth::host {

/// Presence, fed with what the service hears of phones, and with the times of earlier meetings that AddressMemory has.
///
/// Threading: everything on the home's executor. Reads a file or two when it is asked, and when a phone has refused a
/// connection.
class PresenceKeeper {
public:
    /// `home` outlives this.
    explicit PresenceKeeper(Home& home) : home_(home) {}
    PresenceKeeper(const PresenceKeeper&) = delete;
    PresenceKeeper& operator=(const PresenceKeeper&) = delete;

    /// Called whenever what all() says may have changed, but for what time does. May be empty. Must not throw.
    std::function<void()> onChanged;

    void arrived(const PeerKey& phone);
    /// `heardAt`: when something last came from it.
    void left(const PeerKey& phone, platform::Clock::Instant heardAt);
    /// An attempt to send has shown this. A refusal by another device, which has the address now, is none.
    void learn(const PeerRecord& phone, OutboxSender::Contact contact, platform::Clock::Instant at);
    void confirmed(const PeerKey& phone);
    void disappeared(const PeerKey& phone);
    void networkChanged();

    /// Of the phones in the book, in its order. Reads a file.
    [[nodiscard]] std::vector<PhonePresence> all(const PeerBook& book) const;

private:
    [[nodiscard]] Presence::Moment now() const { return momentOf(home_.system.clock.now()); }
    /// By both clocks, of an instant that is not ahead.
    [[nodiscard]] Presence::Moment momentOf(platform::Clock::Instant instant) const;
    void tellChange() const;

    Home& home_;
    Presence presence_;
};

} // namespace orlinth::host
