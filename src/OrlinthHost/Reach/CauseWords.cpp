#include "OrlinthHost/Reach/CauseWords.h"

#include "OrlinthHost/HumanText.h"
#include "base/Text.h"

#include <algorithm>
#include <cctype>
#include <cmath>

namespace orlinth::host {
namespace {

/// Of anything that others have chosen.
constexpr std::size_t nameColumns = 40;

/// Of a path, whose parts all say where it is.
constexpr std::size_t pathColumns = 60;

std::string shown(const std::string& text, const char* otherwise, std::size_t columns = nameColumns) {
    return text.empty() ? std::string(otherwise) : forDisplay(text, columns);
}

/// The details as the sentences have them.
struct Names {
    explicit Names(const CauseDetails& details)
        : phone(shown(details.phone, "The phone")),
          phoneInside(shown(details.phone, "the phone")),
          address(shown(details.address, "the recorded address")),
          port(std::to_string(details.port)) {}

    std::string phone;       ///< at the beginning of a sentence
    std::string phoneInside; ///< anywhere else
    std::string address;
    std::string port;
};

/// " (tun0)".
std::string inBrackets(const std::string& text) {
    return text.empty() ? std::string() : " (" + forDisplay(text, nameColumns) + ")";
}

/// " in NETWORK".
std::string networkOr(const std::string& network, const std::string& otherwise) {
    return network.empty() ? otherwise : "in " + forDisplay(network, nameColumns);
}

std::string wordsOfSilence(const CauseDetails& details, const Names& names) {
    const std::string here = details.seenBefore
                                 ? "It was here until about " + humanDuration(*details.seenBefore) + " ago, or it"
                                 : std::string("It has left just now, or it");
    return "No answer from " + names.phoneInside + ". " + here + " blocks everything.";
}

std::string wordsOfFirewall(const CauseDetails& details, const Names& names) {
    const std::string zone = details.zone.empty() ? "" : ", zone " + forDisplay(details.zone, nameColumns);
    const std::string which =
        details.firewall.empty() ? "" : " (" + forDisplay(details.firewall, nameColumns) + zone + ")";
    return "This computer's firewall" + which + " does not let phones in at port " + names.port + ".";
}

std::string wordsOfFirewallsDoubt(const CauseDetails& details, const Names& names) {
    const bool isRead = details.firewall == "firewalld" && !details.isUnread;
    const char* const why = isRead ? "Some of its rules cannot be judged." : "Its rules cannot be read.";
    return "This computer's firewall" + inBrackets(details.firewall) + " may keep phones out at port " + names.port +
           ". " + why;
}

std::string wordsOfClock(const CauseDetails& details) {
    if (!details.clockError) {
        return "This computer's clock is not synchronised.";
    }
    const Seconds size(std::abs(details.clockError->count()));
    const std::string figure = size >= 1min ? std::to_string(std::lround(size / 1min)) + " min" : humanDuration(size);
    const char* const way = *details.clockError < 0s ? " slow" : " fast";
    return "This computer's clock is " + figure + way + ".";
}

Advice toOpenTheApp(const CauseDetails& details) {
    const std::string open = "Open the app there once and allow it to run in the background (battery settings).";
    if (!details.hasPushToken) {
        return {.text = open + " It cannot be woken: no push token is recorded; pairing again brings one."};
    }
    if (details.wasWokenInVain) {
        return {.text = open};
    }
    return {.text =
                open + (details.hasPushKey ? " It is woken when you send."
                                           : " It cannot be woken: this computer has no key file of a push project.")};
}

/// What a zone's name may be, which a command takes as it is: at most 17 characters, and none that a shell minds.
bool isZoneName(const std::string& name) {
    constexpr std::size_t maxLength = 17;
    const auto isPlain = [](unsigned char character) {
        return std::isalnum(character) != 0 || character == '_' || character == '-' || character == '/';
    };
    return !name.empty() && name.size() <= maxLength && std::ranges::all_of(name, isPlain);
}

/// Without a zone's name the commands open the port in the default zone, which helps only if it is the one.
Advice toOpenThePort(const CauseDetails& details) {
    const std::string port = std::to_string(details.port) + "/tcp";
    if (details.firewall == "firewalld" && (details.isDefaultZone || isZoneName(details.zone))) {
        const std::string zone = details.isDefaultZone ? "" : " --zone=" + details.zone;
        return {
            .text = "To open the port:",
            .commands = {"sudo firewall-cmd --permanent" + zone + " --add-port=" + port, "sudo firewall-cmd --reload"}};
    }
    if (details.firewall == "ufw") {
        return {.text = "To open the port:", .commands = {"sudo ufw allow " + port}};
    }
    return {.text = "Open TCP port " + std::to_string(details.port) + " in this computer's firewall."};
}

} // namespace

std::string words(Cause cause, const CauseDetails& details) {
    const Names names(details);
    switch (cause) {
    case Cause::none:
        return names.phone + " is here now.";
    case Cause::notListening:
        return names.phone + " is on this network, but Orlinth is not open on it.";
    case Cause::notThere:
        return "Nothing answers at " + names.address + ". The phone is off, out of Wi-Fi, or has a new address.";
    case Cause::swallowed:
    case Cause::forbidden:
        return names.phone + " is on this network, but something on it blocks the connection.";
    case Cause::silent:
        return wordsOfSilence(details, names);
    case Cause::otherKey:
    case Cause::otherDevice:
    case Cause::notOrlinth:
    case Cause::silentPort:
        return "Another device has the address that " + names.phoneInside + " had.";
    case Cause::moved:
        return names.phone + " has moved to " + shown(details.addressNow, "another address") +
               ". This is now recorded.";
    case Cause::otherNetwork:
        return names.phone + " was last " + networkOr(details.phonesNetwork, "in another network") +
               ". This computer is " + networkOr(details.ownNetwork, "not in that network") + ".";
    case Cause::noRoute:
        return "This computer has no route to " + names.address + ", where " + names.phoneInside + " was last.";
    case Cause::routerSays:
        return "A router on the way to " + names.phoneInside + " turns the connection away.";
    case Cause::vpnTakesLan:
        return "The VPN on this computer" + inBrackets(details.interface) + " takes the way to " +
               shown(details.phonesNetwork, "your home network") + ".";
    case Cause::containerNetwork:
        return "A container network on this computer" + inBrackets(details.interface) + " takes the way to " +
               shown(details.phonesNetwork, "your home network") + ".";
    case Cause::ownOutgoing:
        return "A firewall on this computer (a VPN's kill switch?) stops what goes out.";
    case Cause::isolated:
        return "This Wi-Fi seems to keep its devices apart (guest network?).";
    case Cause::noNetwork:
        return "This computer is not connected to any network.";
    case Cause::firewallIn:
        return wordsOfFirewall(details, names);
    case Cause::firewallMaybe:
        return wordsOfFirewallsDoubt(details, names);
    case Cause::notRunning:
        return "The Orlinth service is not running, so this computer receives nothing.";
    case Cause::portTaken:
        return "Port " + names.port + " is taken by another program" + inBrackets(details.program) + ".";
    case Cause::otherPort:
        return "The service listens at port " + names.port +
               (details.portKnown == 0 ? std::string(", and your phones know another one.")
                                       : ", but your phones know port " + std::to_string(details.portKnown) + ".");
    case Cause::ownAddress:
        return "Your phones know this computer as " + names.address + ". It is " +
               shown(details.addressNow, "somewhere else") + " now, so they cannot send to it.";
    case Cause::folder:
        return "Files cannot be stored in " + shown(details.folder, "the downloads folder", pathColumns) +
               (details.reason.empty() ? std::string(".") : ": " + forDisplay(details.reason, nameColumns) + ".");
    case Cause::disk:
        return "There is hardly any room in " + shown(details.folder, "the downloads folder", pathColumns) + ".";
    case Cause::pushNoToken:
        return names.phone + " cannot be woken: no push token is recorded.";
    case Cause::pushKey:
        return names.phone + " cannot be woken: the key file of your push project cannot be used.";
    case Cause::pushRefused:
        return "The push service refused this computer's key.";
    case Cause::clock:
        return wordsOfClock(details);
    case Cause::unknown:
        break;
    }
    return names.phone + " cannot be reached, and it is not clear why.";
}

Advice advice(Cause cause, const CauseDetails& details) {
    switch (cause) {
    case Cause::none:
    case Cause::moved:
    case Cause::noNetwork:
        return {};
    case Cause::notListening:
        return toOpenTheApp(details);
    case Cause::notThere:
        return {.text = "Is Wi-Fi on there, and is it the same Wi-Fi?"};
    case Cause::swallowed:
    case Cause::forbidden:
        return {.text = "Usually it is a VPN app on the phone: allow local connections there, and switch off \"Block "
                        "connections without VPN\"."};
    case Cause::silent:
        return {.text = "Try again in a minute."};
    case Cause::otherKey:
        return {.text = "If the phone was reset, pair it again."};
    case Cause::otherDevice:
    case Cause::notOrlinth:
    case Cause::silentPort:
        return {.text = "Open the app on the phone and send something from it, so that its new address becomes known."};
    case Cause::otherNetwork:
    case Cause::noRoute:
    case Cause::routerSays:
        return {.text = "Put both into one Wi-Fi, or use the phone's hotspot."};
    case Cause::vpnTakesLan:
        return {.text = "Allow the local network in the VPN's settings (\"LAN sharing\", split tunnel)."};
    case Cause::containerNetwork:
        return {.text = "Give the containers another address range (in Docker: default-address-pools)."};
    case Cause::ownOutgoing:
        return {.text = "Allow the local network in the settings of the firewall or VPN."};
    case Cause::isolated:
        return {.text =
                    "Switch off \"AP isolation\" or \"client isolation\" in the router, leave the guest network, or "
                    "use the phone's hotspot."};
    case Cause::firewallIn:
    case Cause::firewallMaybe:
        return toOpenThePort(details);
    case Cause::notRunning:
        return {.text = "To start it now and at every login:", .commands = {"systemctl --user enable --now orlinth"}};
    case Cause::portTaken:
        return {.text = "End that program, or give it another port."};
    case Cause::otherPort:
        return {.text = "Let the service listen at the port that the phones know, or pair them again."};
    case Cause::ownAddress:
        return {.text = "Give this computer a fixed address in the router, or pair again. Sending to phones works."};
    case Cause::folder:
        return {.text = "Choose another folder with `--dir`, or make this one writable."};
    case Cause::disk:
        return {.text = "Make room there, or choose another folder with `--dir`."};
    case Cause::pushNoToken:
        return {.text = "Pair the phone again; that brings a push token."};
    case Cause::pushKey:
    case Cause::pushRefused:
        return {.text = "Download a new key file from the console of your push project."};
    case Cause::clock:
        return {.text = "Switch on automatic time:", .commands = {"sudo timedatectl set-ntp true"}};
    case Cause::unknown:
        break;
    }
    return {.text = "Is the phone on the same Wi-Fi, with the app open?"};
}

} // namespace orlinth::host
