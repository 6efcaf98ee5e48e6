#pragma once

#include "platform/Task.h"

#include <cstdint>
#include <string>

namespace orlinth::platform {

/// What keeps connections to this computer out, as far as an ordinary user may know.
struct FirewallReport {
    enum class Verdict {
        open,   ///< nothing that is known of keeps them out
        closed, ///< they are certainly kept out, as nothing that was read lets them in, and all of it was read
        unknown ///< something filters, and its rules cannot be read, or are more than can be judged
    };
    Verdict verdict = Verdict::open;
    std::string name;           ///< "firewalld", "ufw" or "nftables"; "" if none of these is active
    std::string zone;           ///< of firewalld: the one of the interface; "" if it is not known
    bool isDefaultZone = false; ///< so that firewalld's commands mean it without naming it
    bool isUnread = false;      ///< of firewalld: the rules of the zone could not be read

    friend bool operator==(const FirewallReport&, const FirewallReport&) = default;
};

/// This computer's firewall, which is asked and never changed.
class Firewall {
public:
    virtual ~Firewall() = default;
    /// Whether other devices may connect to a TCP port by this interface. Everything that runs for it runs on
    /// `executor`. A firewall that does not answer counts as one that is not there; who has no time to wait for that
    /// cancels. @throws Cancelled
    [[nodiscard]] virtual Task<FirewallReport> incoming(std::string interface, std::uint16_t port,
                                                        Executor executor) = 0;
};

} // namespace orlinth::platform
