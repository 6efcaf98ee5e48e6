#pragma once

#include "OrlinthCore/Receiving/ReceivingLimits.h"
#include "platform/Clock.h"

#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace orlinth {

/// The connections of phones that have proved their keys: limits::connectionsOfOnePhone each. When one more comes, the
/// oldest without an accepted transfer has to go; if all have one, the one that was not heard of for longest, which is
/// most probably dead. Its partial file is kept.
///
/// Threading: any thread; a claim belongs to its connection's executor.
class PhonePlaces {
public:
    PhonePlaces() = default;
    PhonePlaces(const PhonePlaces&) = delete;
    PhonePlaces& operator=(const PhonePlaces&) = delete;

    class Claim;

    /// For diagnostics and tests: of this phone.
    [[nodiscard]] std::size_t count(const std::string& phone) const;

private:
    struct Connection {
        Claim* owner;
        std::function<void()> dismiss;
        platform::Clock::Instant heardOf{0};
        bool hasTransfer = false;
    };
    using Line = std::list<Connection>; ///< the oldest first

    [[nodiscard]] static Line::iterator chooseWhoGoes(Line& line);

    mutable std::mutex lock_; ///< guards what follows
    std::map<std::string, Line> lines_;
};

/// One connection's place; given up with the object.
class PhonePlaces::Claim {
public:
    /// `phone` is the key, Base64. `dismiss` ends the connection soon after; it is called at most once, on any thread.
    /// `places` and `clock` outlive the claim.
    Claim(PhonePlaces& places, platform::Clock& clock, std::string phone, std::function<void()> dismiss);
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
    const std::string phone_;
    Line gone_; ///< holds `place_` once it was dismissed
    Line::iterator place_;
};

} // namespace orlinth
