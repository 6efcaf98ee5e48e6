#include "OrlinthHost/Reach/Cause.h"

namespace orlinth::host {

std::string_view idOf(Cause cause) noexcept {
    switch (cause) {
    case Cause::none:
        return "none";
    case Cause::unknown:
        break;
    case Cause::notListening:
        return "not_listening";
    case Cause::notThere:
        return "not_there";
    case Cause::swallowed:
        return "swallowed";
    case Cause::forbidden:
        return "forbidden";
    case Cause::silent:
        return "silent";
    case Cause::otherKey:
        return "other_key";
    case Cause::otherDevice:
        return "other_device";
    case Cause::notOrlinth:
        return "not_orlinth";
    case Cause::silentPort:
        return "silent_port";
    case Cause::moved:
        return "moved";
    case Cause::otherNetwork:
        return "other_network";
    case Cause::noRoute:
        return "no_route";
    case Cause::routerSays:
        return "router_says";
    case Cause::vpnTakesLan:
        return "vpn_takes_lan";
    case Cause::containerNetwork:
        return "container_net";
    case Cause::ownOutgoing:
        return "own_outgoing";
    case Cause::isolated:
        return "isolated";
    case Cause::noNetwork:
        return "no_network";
    case Cause::firewallIn:
        return "firewall_in";
    case Cause::firewallMaybe:
        return "firewall_maybe";
    case Cause::notRunning:
        return "not_running";
    case Cause::portTaken:
        return "port_taken";
    case Cause::otherPort:
        return "other_port";
    case Cause::ownAddress:
        return "own_address";
    case Cause::folder:
        return "folder";
    case Cause::disk:
        return "disk";
    case Cause::pushNoToken:
        return "push_no_token";
    case Cause::pushKey:
        return "push_key";
    case Cause::pushRefused:
        return "push_refused";
    case Cause::clock:
        return "clock";
    }
    return "unknown";
}

} // namespace orlinth::host
