#include "OrlinthHost/Reach/Diagnosis.h"

#include <cerrno>

namespace orlinth::host {
namespace {

using Connect = Evidence::Connect;
using Icmp = Evidence::Icmp;
using Neighbour = Evidence::Neighbour;
using Proof = Evidence::Proof;
using Route = Evidence::Route;

bool isFrom(const Evidence& evidence, Icmp::Sender sender) noexcept {
    return evidence.icmp && evidence.icmp->sender == sender;
}

bool isNeighbour(const Evidence& evidence, Neighbour::State state) noexcept {
    return evidence.neighbour && evidence.neighbour->state == state;
}

bool isDevice(const Evidence& evidence, Neighbour::Device device) noexcept {
    return isNeighbour(evidence, Neighbour::State::valid) && evidence.neighbour->device == device;
}

/// Somebody is at the address, whatever it does with connections to the port.
bool isSomebodyThere(const Evidence& evidence) noexcept {
    const bool isConfirmed = isNeighbour(evidence, Neighbour::State::valid) && evidence.neighbour->wasConfirmedSince;
    return evidence.connect == Connect::refused || isFrom(evidence, Icmp::Sender::phone) ||
           evidence.isOtherPortRefused || isConfirmed;
}

/// This computer itself has turned the connection away: it says so under its own address, which it does otherwise only
/// if nobody answers the question for the hardware address.
bool isRejectedHere(const Evidence& evidence) noexcept {
    if (!isFrom(evidence, Icmp::Sender::ownAddress)) {
        return false;
    }
    constexpr std::uint8_t unreachable = 3; // RFC 792
    constexpr std::uint8_t hostUnreachable = 1;
    constexpr std::uint8_t unreachableV6 = 1; // RFC 4443
    constexpr std::uint8_t addressUnreachableV6 = 3;
    const Icmp& icmp = *evidence.icmp;
    const bool mayBeInVain = (icmp.type == unreachable && icmp.code == hostUnreachable) ||
                             (icmp.type == unreachableV6 && icmp.code == addressUnreachableV6);
    return !mayBeInVain || isNeighbour(evidence, Neighbour::State::valid);
}

/// What keeps this computer from sending anything there, whoever is at the address.
std::optional<Cause> causeHere(const Evidence& evidence) noexcept {
    if (!evidence.hasNetwork) {
        return Cause::noNetwork;
    }
    if (evidence.route && evidence.route->isInRealNetwork) {
        switch (evidence.route->interface) {
        case Route::Interface::tunnel:
            return Cause::vpnTakesLan;
        case Route::Interface::containerBridge:
            return Cause::containerNetwork;
        case Route::Interface::real:
            break;
        }
    }
    if (evidence.route && evidence.route->way == Route::Way::none) {
        return Cause::noRoute;
    }
    const bool isSilent = evidence.connect == Connect::timedOut && !evidence.icmp;
    const bool isForbidden = evidence.connect == Connect::notPermitted || (isSilent && evidence.isDatagramForbidden);
    if (isForbidden || isRejectedHere(evidence)) {
        return Cause::ownOutgoing;
    }
    return std::nullopt;
}

/// Who took the connection.
std::optional<Cause> causeByProof(const Evidence& evidence) noexcept {
    if (!evidence.proof) {
        return std::nullopt;
    }
    switch (*evidence.proof) {
    case Proof::phonesKey:
        return Cause::none;
    case Proof::otherKey:
        return Cause::otherKey;
    case Proof::otherProtocol:
        return Cause::notOrlinth;
    case Proof::silence:
        return Cause::silentPort;
    }
    return std::nullopt;
}

/// Nobody answers the question for the hardware address. A guest Wi-Fi looks the same, so that takes all the hints.
Cause causeOfAbsence(const Evidence& evidence) noexcept {
    const bool keepsApart =
        evidence.isWireless && evidence.isGatewayHere && evidence.hasMetNobodyElse && !evidence.wasPhoneEverMetHere;
    return keepsApart ? Cause::isolated : Cause::notThere;
}

/// In a network of this computer, with nobody at the address that is known to be there.
Cause causeOnLink(const Evidence& evidence) noexcept {
    const bool asksInVain =
        isNeighbour(evidence, Neighbour::State::failed) || isNeighbour(evidence, Neighbour::State::incomplete);
    switch (*evidence.connect) {
    case Connect::hostUnreachable:
        return causeOfAbsence(evidence);
    case Connect::timedOut:
        return asksInVain ? causeOfAbsence(evidence) : Cause::silent;
    case Connect::networkUnreachable:
    case Connect::invalid:
        return Cause::noRoute;
    case Connect::connected: // and nobody has asked for a proof
    case Connect::refused:
    case Connect::accessDenied:
    case Connect::notPermitted:
    case Connect::failed:
        break;
    }
    return Cause::unknown;
}

} // namespace

Evidence::Connect Evidence::connectOf(int errorNumber) noexcept {
    switch (errorNumber) {
    case 0:
        return Connect::connected;
    case ECONNREFUSED:
        return Connect::refused;
    case ETIMEDOUT:
        return Connect::timedOut;
    case EHOSTUNREACH:
        return Connect::hostUnreachable;
    case ENETUNREACH:
        return Connect::networkUnreachable;
    case EACCES:
        return Connect::accessDenied;
    case EPERM:
        return Connect::notPermitted;
    case EINVAL:
        return Connect::invalid;
    default:
        return Connect::failed;
    }
}

Cause diagnose(const Evidence& evidence) noexcept {
    if (evidence.proof == Proof::phonesKey) {
        return Cause::none;
    }
    if (evidence.isProvedElsewhere) {
        return Cause::moved;
    }
    if (const std::optional<Cause> here = causeHere(evidence)) {
        return *here;
    }
    if (const std::optional<Cause> proved = causeByProof(evidence)) {
        return *proved;
    }
    if (!evidence.connect) {
        return Cause::unknown;
    }
    if (isFrom(evidence, Icmp::Sender::router)) {
        return Cause::routerSays;
    }
    if (evidence.route && evidence.route->way == Route::Way::gateway && *evidence.connect != Connect::connected) {
        return Cause::otherNetwork;
    }
    if (isDevice(evidence, Neighbour::Device::gateway)) {
        return Cause::isolated;
    }
    if (isSomebodyThere(evidence)) {
        if (isDevice(evidence, Neighbour::Device::other)) {
            return Cause::otherDevice;
        }
        if (isFrom(evidence, Icmp::Sender::phone)) {
            return Cause::forbidden; // a system without a filter answers a closed port by a TCP reset, never by ICMP
        }
        if (*evidence.connect == Connect::refused) {
            return Cause::notListening;
        }
        if (*evidence.connect == Connect::timedOut) {
            return Cause::swallowed;
        }
    }
    return causeOnLink(evidence);
}

} // namespace orlinth::host
