#pragma once

#include "OrlinthHost/Reach/Cause.h"
#include "base/Time.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace orlinth::host {

/// What the sentences about a cause name. What is absent or "" is left out of them, or named in general words. Names
/// that others have chosen are made safe to show by words() and advice().
struct CauseDetails {
    std::string phone = {};                 ///< its name
    std::string address = {};               ///< the recorded one; of ownAddress: this computer's that the phones know
    std::string addressNow = {};            ///< where the phone was found; of ownAddress: this computer's
    std::string phonesNetwork = {};         ///< "192.168.7.0/24"
    std::string ownNetwork = {};            ///< likewise
    std::string interface = {};             ///< through which the way leads, for example "tun0"
    std::string firewall = {};              ///< "firewalld", "ufw" or "nftables"
    std::string zone = {};                  ///< of firewalld: the one of the network interface
    bool isDefaultZone = false;             ///< that zone is the one that firewalld's commands mean by default
    bool isUnread = false;                  ///< of firewalld: the rules of that zone could not be read
    std::string program = {};               ///< that has the port
    std::string folder = {};                ///< of the downloads
    std::string reason = {};                ///< why it cannot be used, for example "it is read-only"
    std::uint16_t port = 28471;             ///< of this computer's service
    std::uint16_t portKnown = 0;            ///< the one that the phones know
    bool hasPushToken = false;              ///< one is recorded of the phone
    bool hasPushKey = false;                ///< this computer has the key file of a push project; both: it can be woken
    bool wasWokenInVain = false;            ///< a push was sent, or was not wanted, and it does not answer
    std::optional<Seconds> seenBefore = {}; ///< how long ago the phone last answered
    std::optional<Seconds> clockError = {}; ///< how much this computer's clock is ahead; below 0: behind
};

/// What is wrong, in one sentence or two. Cause::none: that the phone is here.
[[nodiscard]] std::string words(Cause cause, const CauseDetails& details);

/// What to do about it.
struct Advice {
    std::string text = {};               ///< "" where nothing helps
    std::vector<std::string> commands{}; ///< for a shell, one after the other; none takes more than 78 columns
};
[[nodiscard]] Advice advice(Cause cause, const CauseDetails& details);

} // namespace orlinth::host
