#include "OrlinthHost/Service/PairingAttempt.h"

#include "OrlinthCore/Pairing/DeviceInfo.h"
#include "OrlinthCore/Pairing/PairCode.h"
#include "OrlinthCore/Pairing/PairCrypto.h"
#include "OrlinthCore/Pairing/PairIntroduction.h"
#include "OrlinthCore/Pairing/QRRenderer.h"
#include "OrlinthHost/HostError.h"
#include "OrlinthHost/Phones/PairedPhones.h"
#include "base/Text.h"
#include "platform/Cancelled.h"
#include "platform/IpAddress.h"
#include "platform/SystemError.h"

#include <utility>

namespace orlinth::host {

namespace {

DeviceInfo deviceOn(const Home& home, const std::string& interface) {
    if (interface.empty()) {
        return DeviceInfo::current(home.system.interfaces);
    }
    try {
        return DeviceInfo::current(home.system.interfaces, interface);
    } catch (const DeviceInfoError& error) {
        if (error.which() == DeviceInfoError::Case::noActiveInterface) {
            throw HostError("there is no interface '" + interface + "' that is up and has an IPv4 address",
                            "`ip -brief address` lists the interfaces.");
        }
        throw;
    }
}

/// This computer as it can be reached where the port is open: at an address, on an interface, or ("") everywhere.
DeviceInfo deviceAt(const Home& home, const std::string& place, const std::string& interface) {
    if (place.empty() || place == interface) {
        return deviceOn(home, interface);
    }
    const std::string text = "the service receives only at " + place;
    const auto address = platform::parseIpAddress(place);
    const auto* const ipv4 = address ? std::get_if<platform::Ipv4Address>(&*address) : nullptr;
    if (address && ipv4 == nullptr) {
        throw HostError(text + ", and the code for the phone needs an IPv4 address",
                        "Give the service an IPv4 address or an interface with `orlinth serve --listen`.");
    }
    try {
        const DeviceInfo device = ipv4 == nullptr ? DeviceInfo::current(home.system.interfaces, place)
                                                  : DeviceInfo::withAddress(home.system.interfaces, *ipv4);
        if (interface.empty() || interface == device.interface) {
            return device;
        }
    } catch (const DeviceInfoError& error) {
        if (error.which() != DeviceInfoError::Case::noActiveInterface) {
            throw;
        }
        throw HostError(text + ", which is no IPv4 address or interface of this computer that is up",
                        "`ip -brief address` lists the interfaces.");
    }
    throw HostError(text + ", not on the interface '" + interface + "'",
                    "Pair without choosing an interface, or let `orlinth serve --listen` name that interface.");
}

PairingPayload payloadFor(const Home& home, const PairingAttempt::Settings& settings, std::uint16_t port) {
    DeviceInfo device = deviceAt(home, settings.place, settings.interface);
    if (!home.computerName.empty()) {
        device.hostname = home.computerName.get();
    }
    return PairingPayload::mint(settings.ownKey, device, port);
}

std::optional<ToldAddress> toldBy(const PairingPayload& payload) {
    const std::optional<HostAddress> host = HostAddress::parse(payload.peer_ip);
    if (!host) {
        return std::nullopt; // loopback, for example, which is not worth remembering
    }
    return ToldAddress{.host = *host, .port = static_cast<std::uint16_t>(payload.peer_port)};
}

PeerRecord recordIn(const Home& home, const PairListener::Result& result, const platform::PublicKey& ownKey) {
    PairIntroduction::Decoded decoded = PairIntroduction::decodeFrom(platform::addressOfEndpoint(result.remoteEndpoint),
                                                                     result.phoneIntroductionPlaintext, ownKey);
    const auto log = [&home, &decoded](const std::string& text) {
        home.system.log.write(platform::LogLevel::info, "com.tarvinex.orlinth", "pair",
                              "introduction of " + forDisplay(decoded.record.peer_hostname) + ": " + forDisplay(text));
    };
    for (const std::string& objection : decoded.leftOut) {
        log("left out " + objection);
    }
    if (decoded.hasConnectionAddress) {
        log("key \"peer_ip\" is empty, so the connection's address is used: " + decoded.record.peer_ip);
    }
    return std::move(decoded.record);
}

std::string hintForDevice(const DeviceInfoError& error) {
    switch (error.which()) {
    case DeviceInfoError::Case::getifaddrsFailed:
        return "The system cannot list the network interfaces: " +
               describe(platform::SystemError::fromErrno(error.number())) + ". Try again later.";
    case DeviceInfoError::Case::noActiveInterface:
        return "Is this computer connected?";
    case DeviceInfoError::Case::macNotFound:
        return "Pair on another interface.";
    }
    return {};
}

std::string hintForListener(const PairListener::Error& error) {
    switch (error.which()) {
    case PairListener::Error::Case::listenerStartFailed:
        return "Another program may be using the port. Try again later.";
    case PairListener::Error::Case::timedOut:
        return "No phone has answered. Phone and computer must be in the same network; then pair again.";
    case PairListener::Error::Case::readFailed:
    case PairListener::Error::Case::decryptFailed:
    case PairListener::Error::Case::connectionFailed:
        return "Whoever connected was not a phone that has scanned this code. Nothing was recorded; pair again.";
    case PairListener::Error::Case::alreadyRunning:
    case PairListener::Error::Case::cancelled:
        return {};
    }
    return {};
}

} // namespace

PairingAttempt::PairingAttempt(Home& home, std::unique_ptr<platform::Listener> port, Settings settings)
    : home_(home),
      ownKey_(settings.ownKey),
      payload_(payloadFor(home, settings, port->port())),
      digits_(PairCode::generate()),
      secret_(payload_.secret()),
      advertiser_(home.system.services, home.system.log, payload_, digits_, home.executor) {
    const std::uint16_t number = port->port();
    if (settings.onDelivery) {
        door_.emplace(home, std::move(port), secret_, std::move(settings.onDelivery));
        port = door_->listener();
    }
    listener_.emplace(home.system, secret_, number, settings.timeout, std::move(port));
}

void PairingAttempt::announce(platform::ServiceDiscovery::PublicationEvents events) {
    advertiser_.start(std::move(events));
}

Task<IntroducedPhone> PairingAttempt::awaitPhone() {
    std::optional<PairListener::Result> result;
    std::exception_ptr failure;
    try {
        result = co_await listener_->awaitIntroduction();
    } catch (const std::exception& error) {
        if (platform::isCancellation(error)) {
            throw; // no time for manners
        }
        failure = std::current_exception();
    }
    if (door_) {
        static_cast<void>(co_await door_->finish());
    }
    if (failure) {
        std::rethrow_exception(failure);
    }
    co_return introduced(*result);
}

IntroducedPhone PairingAttempt::introduced(const PairListener::Result& result) {
    PeerRecord record = recordIn(home_, result, ownKey_);
    const auto phoneKey = platform::PublicKey::fromBase64(record.peer_pubkey.text());
    return {.record = std::move(record),
            .confirmationCode = PairCrypto::confirmationCode(secret_.reveal(), ownKey_, phoneKey.value(),
                                                             result.phoneIntroductionPlaintext),
            .remoteEndpoint = result.remoteEndpoint,
            .met = PairedPhones(home_).meet(platform::addressOfEndpoint(result.remoteEndpoint)),
            .told = toldBy(payload_)};
}

std::optional<std::string> hintForPairing(const std::exception& error) {
    if (const auto* own = dynamic_cast<const HostError*>(&error)) {
        return own->hint();
    }
    if (const auto* device = dynamic_cast<const DeviceInfoError*>(&error)) {
        return hintForDevice(*device);
    }
    if (const auto* code = dynamic_cast<const QRRenderer::Error*>(&error);
        code != nullptr && code->which() == QRRenderer::Error::Case::filterFailed) {
        return "What the code has to say does not fit into a QR code. Is this computer's host name very long?";
    }
    if (dynamic_cast<const PairIntroductionError*>(&error) != nullptr) {
        return "Nothing was recorded.";
    }
    if (const auto* listener = dynamic_cast<const PairListener::Error*>(&error)) {
        return hintForListener(*listener);
    }
    return std::nullopt;
}

} // namespace orlinth::host
