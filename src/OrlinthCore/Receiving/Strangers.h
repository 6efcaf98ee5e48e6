#pragma once

#include "OrlinthCore/Receiving/ReceivingLimits.h"
#include "platform/Clock.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace orlinth {

/// Where a connection comes from, for the purpose of counting: an IPv4 address (also one that is written as IPv6), the
/// /64 network of an IPv6 address with its interface, or the text as it is. `address` has no port.
[[nodiscard]] std::string sourceOf(const std::string& address);

/// The connections that have not proved a paired key, by their sources, and who of them has to go when they are too
/// many. Decides and remembers only; ending a connection is the caller's. Lives on one queue.
///
/// Who goes is taken from the source that has most: first those who have said nothing, then the others, the oldest
/// first. So a flood from one source throws out itself.
class Strangers {
public:
    using Identity = std::uint64_t;
    using Instant = platform::Clock::Instant;
    /// Whether the first message of this one's handshake has come.
    using HasGreeted = std::function<bool(Identity)>;

    explicit Strangers(HasGreeted hasGreeted) : hasGreeted_(std::move(hasGreeted)) {}

    /// Of one source, as ReceiverLimits says.
    std::size_t mostOfOneSource = limits::strangers;

    /// Somebody comes. Returns those who have to go for that; they are forgotten here.
    [[nodiscard]] std::vector<Identity> add(Identity identity, std::string source, Instant now);
    /// Those who are too many of their source and have had their time; they are forgotten here.
    [[nodiscard]] std::vector<Identity> takeOverdue(Instant now);
    /// One who has to go to make room for others; nothing if there is nobody.
    [[nodiscard]] std::optional<Identity> takeOne();
    /// It has proved its key, or has ended. One that is not known here: nothing.
    void remove(Identity identity);
    /// Whether some source has too many, so that takeOverdue() will return somebody sooner or later.
    [[nodiscard]] bool isCrowded() const;
    [[nodiscard]] std::size_t count() const noexcept { return sources_.size(); }

private:
    struct Stranger {
        Identity identity;
        Instant since;
    };
    using Line = std::vector<Stranger>; ///< the oldest first

    void trim(Line& line, Instant now, std::vector<Identity>& gone);
    /// The one to go of these; nothing if nobody has been there since `before`.
    [[nodiscard]] std::optional<Identity> choose(const Line& line, std::optional<Instant> before) const;

    HasGreeted hasGreeted_;
    std::map<std::string, Line> lines_;       ///< by their source, none of them empty
    std::map<Identity, std::string> sources_; ///< of everybody
};

} // namespace orlinth
