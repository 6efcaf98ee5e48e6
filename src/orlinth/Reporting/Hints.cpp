#include "orlinth/Reporting/Hints.h"

#include "OrlinthCore/Peers/PeerRecord.h"
#include "OrlinthCore/Receiving/ReceiveError.h"
#include "OrlinthCore/SecureChannel/TransportFrame.h"
#include "OrlinthCore/SecureChannel/WireConnection.h"
#include "OrlinthCore/Sending/FcmWake.h"
#include "OrlinthCore/Sending/SendError.h"
#include "OrlinthHost/Phones/PeerSelection.h"
#include "OrlinthHost/Reach/PhoneCheck.h"
#include "OrlinthHost/Sending/Delivery.h"
#include "base/Text.h"
#include "orlinth/Reporting/Output.h"

#include <algorithm>
#include <cctype>
#include <optional>

namespace orlinth::cli {

namespace {

/// Behind a deadline there may be a more exact reason.
SendError::Reason reasonBehind(const SendError& error) {
    if (error.reason() == SendError::Reason::timedOut && error.cause()) {
        try {
            std::rethrow_exception(error.cause());
        } catch (const SendError& cause) {
            return cause.reason();
        } catch (const std::exception&) {
            return error.reason();
        }
    }
    return error.reason();
}

std::string hintForNetwork(const SendError& error, const std::string& where) {
    switch (reasonBehind(error)) {
    case SendError::Reason::pushFailed:
        return where + " seems to sleep, and could not be woken. " + hintForPush(error.cause());
    case SendError::Reason::timedOut:
    case SendError::Reason::refused:
    case SendError::Reason::hostUnreachable:
        return "Is " + where + " awake, on this network, and ready to receive?";
    case SendError::Reason::networkUnreachable:
        return "Is this computer on the same network as " + where + "?";
    case SendError::Reason::stalled:
        return {}; // the phone was there
    case SendError::Reason::unknownName:
    case SendError::Reason::other:
        break;
    }
    return "The address in use is that of " + where + "; `orlinth peers` lists what is recorded.";
}

/// How connecting failed; nothing if it did not come to that, or was no failure of the way to the phone.
std::optional<host::Evidence::Connect> connectFailure(const SendError& error) {
    if (error.which() != SendError::Case::network) {
        return std::nullopt;
    }
    switch (reasonBehind(error)) {
    case SendError::Reason::timedOut:
        return host::Evidence::Connect::timedOut;
    case SendError::Reason::refused:
        return host::Evidence::Connect::refused;
    case SendError::Reason::hostUnreachable:
        return host::Evidence::Connect::hostUnreachable;
    case SendError::Reason::networkUnreachable:
        return host::Evidence::Connect::networkUnreachable;
    case SendError::Reason::pushFailed:
    case SendError::Reason::stalled:
    case SendError::Reason::unknownName:
    case SendError::Reason::other:
        break;
    }
    return std::nullopt;
}

/// The phone's name as an argument of a command; "" if it cannot be typed like that.
std::string selectorFor(const PeerRecord& phone) {
    const std::string& name = phone.peer_hostname;
    const auto isPlain = [](unsigned char c) { return std::isalnum(c) != 0 || c == '.' || c == '_' || c == '-'; };
    if (!name.empty() && name.front() != '-' && std::ranges::all_of(name, isPlain)) {
        return " " + name;
    }
    const bool canBeQuoted = !name.empty() && name.front() != '-' && name.find('\'') == std::string::npos &&
                             name.find('`') == std::string::npos && forDisplay(name) == name;
    return canBeQuoted ? " '" + name + "'" : "";
}

std::string hintForPeerStore(const PeerStoreError& error, const PeerStore& store) {
    const std::string file = store.fileURL().string();
    switch (error.which()) {
    case PeerStoreError::Case::decode:
        return "The list of paired phones, " + file +
               ", is damaged. Restore it from a backup, or move it away and pair your phones again.";
    case PeerStoreError::Case::read:
        return "The list of paired phones is " + file + ". Make it readable for this account.";
    case PeerStoreError::Case::write:
        return "The list of paired phones is " + file + ". Make it and its folder writable for this account.";
    case PeerStoreError::Case::directoryCreate:
        return "The list of paired phones belongs in " + store.directoryURL().string() +
               ". Make the folder above it writable for this account.";
    }
    return {};
}

std::string hintForKey(const KeyVault::Error& error, const KeyVault& vault) {
    const std::string file = vault.fileURL().string();
    switch (error.which()) {
    case KeyVault::Error::Case::malformedKeyMaterial:
        return "This computer's key, " + file +
               ", is damaged. Restore it from a backup, or delete it and pair every phone again.";
    case KeyVault::Error::Case::read:
        return "This computer's key is " + file + ". Make it readable for this account.";
    case KeyVault::Error::Case::write:
        return "This computer's key belongs in " + file + ". Make its folder writable for this account.";
    case KeyVault::Error::Case::createDirectory:
        return "This computer's key belongs in " + vault.directoryURL().string() +
               ". Make the folder above it writable for this account.";
    }
    return {};
}

} // namespace

std::string hintForPush(const std::exception_ptr& error) {
    using Case = FcmWake::Error::Case;
    constexpr const char* fallback = "Is this computer on the internet? The push goes through the push service.";
    try {
        if (error) {
            std::rethrow_exception(error);
        }
        return fallback;
    } catch (const FcmWake::Error& failure) {
        switch (failure.which()) {
        case Case::serviceAccountMissing:
            return "The key file of your push project belongs at " + failure.detail() +
                   ". To get one: Firebase console, Project settings, Service accounts, Generate new private key; "
                   "docs/wake.md goes through it step by step.";
        case Case::serviceAccountMalformed:
        case Case::privateKeyImport:
        case Case::sign:
            return "The key file of the push project is damaged, or it is another kind of file: docs/wake.md tells how "
                   "to get a new one.";
        case Case::oauthHTTP:
            return "The push project does not accept the key file. It may have been revoked, or this computer's clock "
                   "is wrong: docs/wake.md.";
        case Case::fcmHTTP:
            return failure.status() == 404 || failure.status() == 400
                       ? "The phone's push token is no longer valid, or belongs to another push project. Pair the "
                         "phone again."
                       : "The push service refuses to send: docs/wake.md lists the reasons.";
        case Case::transport:
            break;
        }
        return fallback;
    } catch (const std::exception&) {
        return fallback;
    }
}

std::string hintForSending(const std::exception& error, const std::string& where) {
    if (const auto* host = dynamic_cast<const host::HostError*>(&error)) {
        return host->hint();
    }
    if (dynamic_cast<const WireConnection::Error*>(&error) != nullptr) {
        return "The connection to " + where + " broke. Send the file again: it goes on where it stopped.";
    }
    if (dynamic_cast<const host::DeliveryInDoubt*>(&error) != nullptr) {
        return "Look for it on " + where + ", or send it again.";
    }
    const auto* frame = dynamic_cast<const TransportFramer::Error*>(&error);
    if (frame != nullptr && frame->which() == TransportFramer::Error::Case::plaintextTooLarge) {
        return "A text of that size goes as a file: `orlinth send`.";
    }
    const auto* send = dynamic_cast<const SendError*>(&error);
    if (send == nullptr) {
        return {};
    }
    switch (send->which()) {
    case SendError::Case::network:
        return hintForNetwork(*send, where);
    case SendError::Case::noiseHandshakeFailed:
        return "What answers for " + where + " is not ready, or it does not know this computer. Is the app open there?";
    case SendError::Case::malformedResume:
        if (send->detail().starts_with("accepted_offset out of range: ")) {
            return where + " has more of this file than there is. Delete the file's \".partial\" and "
                           "\".partial.meta.json\" there, and send it again.";
        }
        return {};
    case SendError::Case::unauthorizedPeer:
        return "What answers for " + where + " is not the phone that was paired. If it was set up anew, pair it again.";
    default:
        return {};
    }
}

std::string hintForSending(host::Home& home, const std::exception& error, const PeerRecord& phone) {
    const std::string general = hintForSending(error, host::nameAndAddress(phone));
    const auto* const send = dynamic_cast<const SendError*>(&error);
    const std::optional<host::Evidence::Connect> failure = send != nullptr ? connectFailure(*send) : std::nullopt;
    if (!failure) {
        return general;
    }
    const host::PhoneFindings found = host::explainFailure(home, phone, *failure);
    std::string hint = general;
    if (found.cause != host::Cause::unknown) {
        const std::string help = host::advice(found.cause, found.details).text;
        hint = host::words(found.cause, found.details) + (help.empty() ? "" : " " + help);
    }
    return hint + " `orlinth doctor" + selectorFor(phone) + "` looks further.";
}

std::string hintForNotTaken(const std::string& where) {
    return where +
           " ended the connection before it took the file. It may no longer know this computer: if this computer "
           "is not in its list, pair again.";
}

std::string hintForReceiving(const std::exception& error, const std::string& from, const platform::Path& folder) {
    if (const auto* host = dynamic_cast<const host::HostError*>(&error)) {
        return host->hint();
    }
    if (dynamic_cast<const WireConnection::Error*>(&error) != nullptr) {
        return "The connection broke. What has arrived is kept: receive again, and " + from + " goes on from there.";
    }
    const auto* receive = dynamic_cast<const ReceiveError*>(&error);
    if (receive == nullptr) {
        return {};
    }
    switch (receive->which()) {
    case ReceiveError::Case::timedOut:
        return "Nobody connected in time. Is " + from + " on this network, and does it know this port?";
    case ReceiveError::Case::unauthorizedPeer:
        return "Whoever connected is not " + from + ". Nothing was received.";
    case ReceiveError::Case::noiseHandshakeFailed:
        return "Whoever connected did not complete the greeting. Nothing was received.";
    case ReceiveError::Case::fileWriteFailed:
    case ReceiveError::Case::fileNotTaken:
        return "What has arrived is kept. Free some space in " + folder.string() +
               ", or make it writable for this account; then receive again.";
    default:
        return {};
    }
}

std::string hintForPort(const host::PortError& error) {
    using Case = host::PortError::Case;
    const std::string number = std::to_string(error.port());
    switch (error.which()) {
    case Case::inheritedUnusable:
        return "A socket unit for this service has one ListenStream= and Accept=no.";
    case Case::noSuchPlace:
        return "`--listen` takes addresses and interfaces of this computer; `ip address` shows them.";
    case Case::placesExcludeEachOther:
        return "The places that `--listen` names exclude each other: 0.0.0.0 and another IPv4 address do, and so do an "
               "interface and an address. Name single addresses, or interfaces only.";
    case Case::usedByService:
        return "The Orlinth service is using port " + number +
               " and receives from every paired phone. Choose another port (`--port 0`: any free one), or stop the "
               "service first.";
    case Case::usedByOther:
        return "Another program is using port " + number +
               "; `ss -ltnp` shows which. Choose another port (`--port 0`: any free one), or stop that program.";
    case Case::forbidden:
        return "This account may not open port " + number +
               "; ports below 1024 are usually reserved. Choose a higher one with `--port`.";
    case Case::other:
        break;
    }
    return {};
}

std::string hintForServing(const Host& host, const std::exception& error) {
    if (const auto* port = dynamic_cast<const host::PortError*>(&error)) {
        return hintForPort(*port);
    }
    if (const auto* own = dynamic_cast<const host::HostError*>(&error)) {
        return own->hint();
    }
    return hintForOwnFiles(host, error);
}

std::string hintToStartService(const Host& host) {
    return host.system.directories.areUsual() ? "To start it: `systemctl --user enable --now orlinth`"
                                              : "To start it: `orlinth serve`";
}

std::string serviceIsNotRunning(const Host& host) {
    const char* const start = host.system.directories.areUsual() ? "systemctl --user start orlinth" : "orlinth serve";
    return std::string("The Orlinth service is not running. Files will be sent once it starts: `") + start + "`";
}

std::string hintForOwnFiles(const Host& host, const std::exception& error) {
    if (const auto* store = dynamic_cast<const PeerStoreError*>(&error)) {
        return hintForPeerStore(*store, host.peers());
    }
    if (const auto* vault = dynamic_cast<const KeyVault::Error*>(&error)) {
        return hintForKey(*vault, KeyVault(host.system.files, host.system.directories));
    }
    return {};
}

std::string hintForConnection(const Host& host, const Receiver::Failure& failure) {
    if (failure.from.empty()) {
        return "That was no paired phone, from " + failure.remoteEndpoint + ". Nothing was taken from it.";
    }
    const std::string who = "That was " + forDisplay(failure.from) + ", from " + failure.remoteEndpoint + ".";
    try {
        std::rethrow_exception(failure.error);
    } catch (const PeerStoreError& error) {
        return who + " " + hintForPeerStore(error, host.peers());
    } catch (const ReceiveError& error) {
        if (error.which() == ReceiveError::Case::fileWriteFailed || error.which() == ReceiveError::Case::fileNotTaken) {
            return who + " With room and permission in the folder it can send the file again.";
        }
        return who;
    } catch (const WireConnection::Error&) {
        return who + " What has arrived is kept: when it sends the file again, it goes on from there.";
    } catch (...) {
        return who;
    }
}

} // namespace orlinth::cli
