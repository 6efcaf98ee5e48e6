#pragma once

#include "OrlinthHost/Service/PhonePresence.h"
#include "platform/Clock.h"

#include <cstddef>
#include <map>
#include <optional>

namespace orlinth::host {

/// Works out whether phones are there, from what happens anyway: no packet is ever sent for it.
///
///     here     a connection of it is open; or it proved its key within two minutes; or its entry in the table of
///              neighbours was confirmed within a minute, and it has not refused a connection since it proved its key
///     asleep   else, if it has refused a connection since, or its entry was confirmed within ten minutes: it is in the
///              network, but its app does not listen
///     away     else, if anything was heard of it since this computer came into its network
///     unknown  else
///
/// In another network everything is unknown, but for open connections and the time when a phone was last seen.
///
/// Plain values: events and the time in, states out. Not thread-safe.
class Presence {
public:
    using Instant = platform::Clock::Instant;

    static constexpr Seconds hereAfterProof = 120s;
    static constexpr Seconds hereAfterConfirmation = 60s;
    static constexpr Seconds asleepAfterConfirmation = 600s;

    /// The moment by both clocks.
    struct Moment {
        Instant instant{};
        EpochMilliseconds epoch{};
    };

    /// A connection with it is open: it has just proved its key. left() follows.
    void arrived(const PeerKey& phone, Moment now);
    /// The connection is over. `heard` is when something last came by it, which may be long ago.
    void left(const PeerKey& phone, Moment heard);
    /// It has proved its key, in either direction, or something has come from it by a connection for which it had. What
    /// was before it refused or failed, or in another network, only says when it was seen.
    void proved(const PeerKey& phone, Moment heard);
    /// It, and nobody else, has refused a connection.
    void refused(const PeerKey& phone, Instant now);
    /// It did not answer.
    void failed(const PeerKey& phone, Instant now);
    /// The system has just found that its hardware address answers.
    void confirmed(const PeerKey& phone, Instant now);
    /// The system has found that it does not answer.
    void disappeared(const PeerKey& phone);
    /// This computer is in another network, or in none.
    void networkChanged(Instant now);

    /// `peerKey` is always the phone's.
    [[nodiscard]] PhonePresence of(const PeerKey& phone, Instant now) const;

private:
    struct Phone {
        std::size_t open = 0; ///< connections
        std::optional<Instant> provedAt;
        std::optional<Instant> confirmedAt;
        bool hasRefused = false; ///< since it proved its key
        bool isHeardOf = false;  ///< in this network
        Instant failedAt{};      ///< when it last refused or did not answer
        std::optional<EpochMilliseconds> seen;
        std::optional<Instant> seenAt; ///< the same moment
    };

    [[nodiscard]] static PresenceState stateOf(const Phone& phone, Instant now);

    Instant changedAt_{};             ///< the network; nothing before counts
    std::map<PeerKey, Phone> phones_; ///< one for each that anything has happened with
};

} // namespace orlinth::host
