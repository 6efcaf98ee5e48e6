#pragma once

#include <string_view>

namespace orlinth::host {

/// Why a phone cannot be reached, why phones cannot reach this computer, or why they are of no use to each other then.
enum class Cause {
    none,    ///< the phone is here and has proved its key
    unknown, ///< what was seen fits none of the others

    // ---- on the way to a phone; diagnose() returns these

    notListening,     ///< the phone is here, and nothing listens at its port
    notThere,         ///< nothing has the address
    swallowed,        ///< the phone is here, and something on it drops what comes for the port
    forbidden,        ///< the same, and it says so
    silent,           ///< no answer of any kind, and it cannot be told whether the phone is still here
    otherKey,         ///< whoever has the address has proved another key
    otherDevice,      ///< the address has moved to another device
    notOrlinth,       ///< whoever answers speaks another protocol
    silentPort,       ///< whoever takes the connection says nothing
    moved,            ///< the phone has proved its key at another address
    otherNetwork,     ///< the address is behind a router
    noRoute,          ///< this computer knows no way to the address
    routerSays,       ///< a router on the way has turned the connection away
    vpnTakesLan,      ///< the way to the address leads into a tunnel, though this computer is in the address's network
    containerNetwork, ///< likewise into a network of containers or virtual machines
    ownOutgoing,      ///< a firewall of this computer stops what goes out
    isolated,         ///< the Wi-Fi keeps its devices apart
    noNetwork,        ///< this computer is in no network

    // ---- on the way from a phone

    firewallIn,    ///< this computer's firewall keeps phones out
    firewallMaybe, ///< it may, but its rules cannot be read
    notRunning,    ///< no service receives
    portTaken,     ///< another program has the port
    otherPort,     ///< the service listens at another port than the phones know
    ownAddress,    ///< the phones know an address that this computer no longer has

    // ---- once they have met

    folder,      ///< the downloads folder takes no files
    disk,        ///< there is hardly any room
    pushNoToken, ///< the phone's record has no push token
    pushKey,     ///< the key file of the push project is of no use
    pushRefused, ///< the push service does not accept it
    clock        ///< this computer's clock is wrong, which the push service does not accept
};

/// The last of them, so that a test can go through all.
inline constexpr Cause lastCause = Cause::clock;

/// A name that never changes, for scripts: "not_listening".
[[nodiscard]] std::string_view idOf(Cause cause) noexcept;

} // namespace orlinth::host
