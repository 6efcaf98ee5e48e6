#pragma once

#include "OrlinthCore/Receiving/ReceivingLimits.h"
#include "base/Mutex.h"
#include "base/StrongText.h"
#include "platform/Clock.h"

#include <functional>
#include <list>
#include <map>
#include <memory>

namespace orlinth {

/// The connections of phones that have proved their keys: limits::connectionsOfOnePhone each. When one more comes, the
/// oldest without an accepted transfer has to go; if all have one, the one that was not heard of for longest, which is
/// most probably dead. Its partial file is kept. Those that have to go count on until they are gone: with them a phone
/// has limits::connectionsOfOnePhoneInAll, and one more is turned away.
///
/// Threading: any thread; a claim belongs to its connection's executor.
class PhonePlaces {
public:
    PhonePlaces() = default;
    PhonePlaces(const PhonePlaces&) = delete;
    PhonePlaces& operator=(const PhonePlaces&) = delete;

    class Claim;

    /// For diagnostics and tests: of this phone, without those that have to go.
    [[nodiscard]] std::size_t count(const PeerKey& peerKey) const;

private:
    struct Connection {
        Claim* owner;
        std::function<void()> dismiss;
        platform::Clock::Instant heardOf{};
        bool hasTransfer = false;
    };
    using Line = std::list<Connection>; ///< the oldest first
    struct Phone {
        Line line;
        std::size_t leaving = 0; ///< those that have to go
    };

    [[nodiscard]] static Line::iterator chooseWhoGoes(Line& line);

    mutable Mutex lock_;
    std::map<PeerKey, Phone> phones_ ORLINTH_GUARDED_BY(lock_); ///< those with a connection
};

/// One connection's place; given up with the object.
class PhonePlaces::Claim {
public:
    /// `dismiss` ends the connection soon after; it is called at most once, on any thread.
    /// `places` and `clock` outlive the claim. @throws ReceiveError::wire if the phone has too many
    Claim(PhonePlaces& places, platform::Clock& clock, PeerKey peerKey, std::function<void()> dismiss);
    ~Claim();
    Claim(const Claim&) = delete;
    Claim& operator=(const Claim&) = delete;

    /// Something has come from the phone.
    void heard();
    /// Its offer was accepted: it is no idle connection any more.
    void beginTransfer();

private:
    PhonePlaces& places_;
    platform::Clock& clock_;
    const PeerKey peerKey_;
    Line gone_ ORLINTH_GUARDED_BY(places_.lock_);            ///< holds `place_` once it was dismissed
    Line::iterator place_ ORLINTH_GUARDED_BY(places_.lock_); ///< what it points to, too
};

} // namespace orlinth
