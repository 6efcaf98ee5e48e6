#include "OrlinthCore/Pairing/PairJoin.h"

#include "OrlinthCore/Pairing/PairCrypto.h"
#include "OrlinthCore/Pairing/PairIntroduction.h"
#include "OrlinthCore/Pairing/PairWire.h"
#include "base/OneShot.h"
#include "base/Text.h"
#include "platform/Cancelled.h"
#include "platform/Deadline.h"
#include "platform/Spawn.h"

#include <algorithm>
#include <array>
#include <utility>

namespace orlinth {
namespace {

/// What a machine without a name is called.
constexpr const char* namelessHost = "unnamed";

/// Subnet and hardware address of the interface that has this address; empty where they are not to be found, which
/// does no harm: nothing depends on them.
void addNetwork(PeerRecord& self, const platform::NetworkInterfaces& interfaces) {
    try {
        for (const platform::InterfaceAddress& entry : interfaces.list()) {
            const auto* ipv4 = std::get_if<platform::InterfaceAddress::Ipv4>(&entry.address);
            if (ipv4 != nullptr && platform::dottedDecimal(ipv4->address) == self.peer_ip) {
                const DeviceInfo device = DeviceInfo::current(interfaces, entry.name);
                self.peer_subnet = device.subnetCIDR;
                self.peer_mac = device.macAddress;
                return;
            }
        }
    } catch (const Error&) {
        self.peer_subnet.clear();
    }
}

/// What this machine says of itself to somebody towards whom it has this address.
PeerRecord describeSelf(const platform::NetworkInterfaces& interfaces, const PairJoinRequest& request,
                        std::string address) {
    PeerRecord self;
    self.peer_pubkey = request.ownKey.peerKey();
    self.peer_ip = std::move(address);
    self.peer_port = request.receivePort;
    self.peer_hostname = request.ownName.empty() ? DeviceInfo::hostnameString(interfaces) : request.ownName;
    if (trimmed(self.peer_hostname).empty()) {
        self.peer_hostname = namelessHost;
    }
    addNetwork(self, interfaces);
    return self;
}

void requireAcceptable(const Bytes& introduction, const platform::PublicKey& computer) {
    try {
        static_cast<void>(PairIntroduction::decode(introduction, computer));
    } catch (const PairIntroductionError& error) {
        throw PairJoinError::send(error.description());
    }
}

/// An introduction that the computer will take: a host name that it would refuse is left out. @throws PairJoinError
Bytes introductionOf(PeerRecord self, const platform::PublicKey& computer) {
    Bytes introduction = PairIntroduction::encode(self);
    try {
        static_cast<void>(PairIntroduction::decode(introduction, computer));
    } catch (const PairIntroductionError&) {
        self.peer_hostname = namelessHost;
        introduction = PairIntroduction::encode(self);
        requireAcceptable(introduction, computer);
    }
    return introduction;
}

Task<std::unique_ptr<platform::Stream>> connectTo(platform::Network& network, PeerRecord computer, Executor queue) {
    try {
        const auto port = static_cast<std::uint16_t>(computer.peer_port);
        co_return co_await network.connect(computer.peer_ip, port, std::move(queue));
    } catch (const std::exception& error) {
        throw PairJoinError::connect(platform::textOfFailure(error));
    }
}

/// Sends the frame and waits until the other side has closed in an orderly way, which it does once it has read it.
/// A port that was closed with us in its queue answers with a reset.
Task<> deliver(platform::Stream& connection, Bytes frame) {
    try {
        co_await connection.writeAll(frame);
    } catch (const std::exception& error) {
        throw PairJoinError::send(platform::textOfFailure(error));
    }
    connection.finishWriting();
    std::array<std::byte, 1> nothing{};
    bool closed = false;
    try {
        const std::size_t count = co_await connection.readExact(nothing);
        closed = count == 0;
    } catch (const std::exception& error) {
        if (platform::isCancellation(error)) {
            throw;
        }
    }
    if (!closed) {
        throw PairJoinError::notRead();
    }
}

Task<PairJoinResult> introduce(platform::System& system, PairJoinRequest request, Executor queue) {
    CheckedPayload payload = checkPayload(request.payload, request.ownKey);
    const std::unique_ptr<platform::Stream> connection = co_await connectTo(system.network, payload.computer, queue);
    const Bytes introduction =
        introductionOf(describeSelf(system.interfaces, request, connection->localAddress()), payload.key);
    const SecretBytes key = PairCrypto::deriveAEADKey(payload.secret.reveal());
    Bytes frame = PairWire::encodeFrame(PairCrypto::sealIntroduction(introduction, key));
    co_await deliver(*connection, std::move(frame));
    co_return PairJoinResult{.computer = std::move(payload.computer),
                             .confirmationCode = PairCrypto::confirmationCode(payload.secret.reveal(), payload.key,
                                                                              request.ownKey, introduction)};
}

Task<PairJoinResult> introduceInTime(platform::System& system, PairJoinRequest request, Executor queue) {
    OneShot<PairJoinResult> outcome;
    const Seconds timeout = request.timeout;
    const auto timedOut = std::make_exception_ptr(PairJoinError::timedOut());
    Task<PairJoinResult> exchange = introduce(system, std::move(request), std::move(queue));
    co_await platform::settleFirst(outcome, system.clock, timeout, timedOut, std::move(exchange));
    co_return outcome.take();
}

} // namespace

CheckedPayload checkPayload(const PairingPayload& payload, const platform::PublicKey& ownKey) {
    if (payload.version != PairingPayload::currentVersion) {
        throw PairJoinError::payload("its version " + std::to_string(payload.version) + " is not one that we know");
    }
    PeerRecord computer;
    computer.peer_pubkey = PeerKey(payload.peer_pubkey);
    computer.peer_ip = payload.peer_ip;
    computer.peer_port = payload.peer_port;
    computer.peer_subnet = payload.peer_subnet;
    computer.peer_hostname = payload.peer_hostname;
    computer.peer_mac = payload.peer_mac;
    try {
        // the same fields and rules, but that nothing is optional
        PairIntroduction::Decoded decoded = PairIntroduction::check(computer, ownKey);
        if (!decoded.leftOut.empty()) {
            throw PairJoinError::payload(decoded.leftOut.front());
        }
        computer = std::move(decoded.record);
        SecretBytes secret = payload.secret();
        const auto key = platform::PublicKey::fromBase64(computer.peer_pubkey.text());
        return {.computer = std::move(computer), .key = key.value(), .secret = std::move(secret)};
    } catch (const PairIntroductionError& error) {
        throw PairJoinError::payload(error.why());
    } catch (const PairingError& error) {
        throw PairJoinError::payload(error.description());
    }
}

Task<PairJoinResult> joinPairing(platform::System& system, PairJoinRequest request) {
    const Executor queue = system.queues.makeSerialQueue("orlinth.pair-join");
    Task<PairJoinResult> join = introduceInTime(system, std::move(request), queue);
    co_return co_await platform::runOn(queue, std::move(join));
}

PairJoinError PairJoinError::payload(const std::string& why) {
    return {Case::payload, "not a usable pairing code: ", why};
}
PairJoinError PairJoinError::connect(const std::string& text) {
    return {Case::connect, "cannot connect to the computer: ", text};
}
PairJoinError PairJoinError::send(const std::string& text) {
    return {Case::send, "cannot send the introduction: ", text};
}
PairJoinError PairJoinError::notRead() {
    return {Case::notRead, "the computer has not taken the introduction"};
}
PairJoinError PairJoinError::timedOut() {
    return {Case::timedOut, "the computer has not answered in time"};
}

} // namespace orlinth
