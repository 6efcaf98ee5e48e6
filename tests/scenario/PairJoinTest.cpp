#include "OrlinthCore/Pairing/PairJoin.h"

#include "OrlinthCore/Pairing/PairCrypto.h"
#include "OrlinthCore/Pairing/PairIntroduction.h"
#include "OrlinthCore/Pairing/PairListener.h"
#include "OrlinthCore/Pairing/PairWire.h"
#include "base/Base64.h"
#include "fakes/CancelMidway.h"
#include "fakes/WorkshopPayload.h"
#include "fakes/World.h"
#include "platform/SystemError.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <functional>

namespace orlinth {
namespace {

using fakes::FakeNetworkInterfaces;
using fakes::WireFaults;
using fakes::World;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Pair;
using testing::StartsWith;
using Case = PairJoinError::Case;

constexpr std::uint16_t port = 7300;
constexpr std::uint16_t receivePort = 7400;
constexpr Seconds timeout = 10s;
const std::string computerAddress = "192.168.1.23";
/// The address that this machine has in every connection of the network in memory.
constexpr platform::Ipv4Address ownAddress{203, 0, 113, 1};
const std::string secretText(32, 's');

/// What the computer gets and does: takes the connection and sends these bytes, then closes or keeps it for good.
struct Computer {
    Bytes answer = {};
    bool closes = true;
    Bytes frame = {}; ///< what came
};

Task<> serve(World& world, Computer& computer) {
    const std::unique_ptr<platform::Listener> listener =
        world.network.listen({.port = port, .keepAlive = std::nullopt}, world.context.get_executor());
    const std::unique_ptr<platform::Stream> stream = co_await listener->accept(world.context.get_executor());
    for (bool ended = false; !ended;) {
        std::byte byte{};
        const std::size_t count = co_await stream->readExact(MutableBytes(&byte, 1));
        ended = count == 0;
        computer.frame.insert(computer.frame.end(), count, byte);
    }
    co_await stream->writeAll(computer.answer);
    if (!computer.closes) {
        co_await world.clock.sleep(1000s);
    }
}

Task<> closeAt(World& world, std::unique_ptr<platform::Listener> listener, Seconds time) {
    co_await world.clock.sleep(time);
    listener->close();
}

Task<> forget(Task<PairJoinResult> task) {
    co_await std::move(task);
}

class PairJoinScenario : public testing::Test {
protected:
    PairJoinScenario() {
        world.interfaces.addresses = {
            FakeNetworkInterfaces::hardware("eth0", Bytes(6, std::byte{0xEE})),
            FakeNetworkInterfaces::ipv4("eth0", {192, 168, 7, 7}),
            FakeNetworkInterfaces::hardware(
                "wlan0", {std::byte{2}, std::byte{0xA0}, std::byte{3}, std::byte{4}, std::byte{5}, std::byte{0xFF}}),
            FakeNetworkInterfaces::ipv4("wlan0", ownAddress, platform::Ipv4Address{255, 255, 255, 128})};
        world.interfaces.name = "Anns laptop";
    }

    PairingPayload payload() {
        return fakes::workshopPayload(world.computerKey.publicKey().base64(), base64Encode(asBytes(secretText)));
    }
    Task<PairJoinResult> join(PairingPayload with, Seconds time = timeout) {
        return joinPairing(world.system, {.payload = std::move(with),
                                          .ownKey = world.phoneKey.publicKey(),
                                          .receivePort = receivePort,
                                          .timeout = time});
    }
    Task<PairJoinResult> join() { return join(payload()); }

    void expectFailure(Case which, const std::string& text) {
        const auto error = world.failure<PairJoinError>(join());
        EXPECT_EQ(error.which(), which);
        EXPECT_EQ(error.description(), text);
    }
    std::unique_ptr<platform::Listener> listen() {
        return world.network.listen({.port = port, .keepAlive = std::nullopt}, world.context.get_executor());
    }

    /// Pairs with a computer in pair mode; what that gets is in `received`.
    PairJoinResult pair() {
        world.alongside([](World& own, PairListener::Result& result) -> Task<> {
            PairListener listener(own.system, SecretBytes(asBytes(secretText)), port, 30s);
            result = co_await listener.awaitIntroduction();
        }(world, received));
        PairJoinResult joined = world.run(join());
        fakes::runUntilIdle(world.context, world.clock);
        return joined;
    }
    PeerRecord receivedRecord() {
        return PairIntroduction::decode(received.phoneIntroductionPlaintext, world.computerKey.publicKey());
    }

    World world;
    PairListener::Result received;
};

// A whole pairing.

TEST_F(PairJoinScenario, ShowsTheCodeThatTheComputerShows) {
    const PairJoinResult joined = pair();
    EXPECT_THAT(joined.confirmationCode, MatchesRegex("[0-9][0-9][0-9][0-9]"));
    EXPECT_EQ(joined.confirmationCode,
              PairCrypto::confirmationCode(asBytes(secretText), world.computerKey.publicKey(),
                                           world.phoneKey.publicKey(), received.phoneIntroductionPlaintext));
    EXPECT_EQ(world.clock.elapsed(), 0) << "nobody waits for a deadline";
    EXPECT_THAT(world.network.attempts, ElementsAre(Pair(computerAddress, port)));
}

TEST_F(PairJoinScenario, IntroducesThisMachineByTheAddressThatItHasTowardsTheComputer) {
    pair();
    PeerRecord expected;
    expected.peer_pubkey = world.phoneKey.publicKey().peerKey();
    expected.peer_ip = "203.0.113.1";
    expected.peer_port = receivePort;
    expected.peer_subnet = "203.0.113.0/25";
    expected.peer_hostname = "Anns laptop";
    expected.peer_mac = "02:a0:03:04:05:ff";
    expected.self_pubkey = world.computerKey.publicKey().peerKey();
    EXPECT_EQ(receivedRecord(), expected);
}

TEST_F(PairJoinScenario, KnowsTheComputerAsThePayloadNamesIt) {
    PeerRecord expected;
    expected.peer_pubkey = world.computerKey.publicKey().peerKey();
    expected.peer_ip = computerAddress;
    expected.peer_port = port;
    expected.peer_subnet = "192.168.1.0/24";
    expected.peer_hostname = "workshop";
    expected.peer_mac = "3c:22:fb:01:02:0a";
    expected.self_pubkey = world.phoneKey.publicKey().peerKey();
    EXPECT_EQ(pair().computer, expected);
}

TEST_F(PairJoinScenario, SendsOneSealedFrameAndSaysThatNothingFollows) {
    Computer computer;
    world.alongside(serve(world, computer));
    const PairJoinResult joined = world.run(join());
    const ByteView frame = computer.frame;
    ASSERT_GT(frame.size(), PairWire::lengthPrefixBytes);
    EXPECT_EQ(PairWire::parseLengthPrefix(frame), frame.size() - PairWire::lengthPrefixBytes);
    const SecretBytes key = PairCrypto::deriveAEADKey(asBytes(secretText));
    const Bytes introduction = PairCrypto::openIntroduction(frame.subspan(PairWire::lengthPrefixBytes), key);
    EXPECT_EQ(PairIntroduction::decode(introduction, world.computerKey.publicKey()).peer_hostname, "Anns laptop");
}

TEST_F(PairJoinScenario, LeavesSubnetAndHardwareAddressEmptyWhereNoInterfaceHasTheAddress) {
    world.interfaces.addresses.pop_back();
    pair();
    EXPECT_EQ(receivedRecord().peer_ip, "203.0.113.1");
    EXPECT_EQ(receivedRecord().peer_subnet, "");
    EXPECT_EQ(receivedRecord().peer_mac, "");
}

TEST_F(PairJoinScenario, JoinsWhereTheInterfacesCannotBeListed) {
    world.interfaces.listErrno = ENOMEM;
    pair();
    EXPECT_EQ(receivedRecord().peer_ip, "203.0.113.1");
    EXPECT_EQ(receivedRecord().peer_subnet, "");
    EXPECT_EQ(receivedRecord().peer_mac, "");
}

TEST_F(PairJoinScenario, JoinsThroughAnInterfaceWithoutAHardwareAddress) {
    world.interfaces.addresses = {FakeNetworkInterfaces::ipv4("tun0", ownAddress)};
    pair();
    EXPECT_EQ(receivedRecord().peer_mac, "");
}

TEST_F(PairJoinScenario, JoinsWithoutAHostName) {
    for (const char* const name : {"", "  \t"}) {
        SCOPED_TRACE(name);
        world.interfaces.name = name;
        pair();
        EXPECT_EQ(receivedRecord().peer_hostname, "unnamed");
    }
}

// A computer that does not take it.

TEST_F(PairJoinScenario, ReportsARefusedConnectionInTheSystemsWords) {
    expectFailure(Case::connect, "cannot connect to the computer: Connection refused");
    EXPECT_EQ(world.clock.elapsed(), 0);
}

TEST_F(PairJoinScenario, GivesUpConnectingAtTheDeadline) {
    world.network.makeSilent(computerAddress);
    expectFailure(Case::timedOut, "the computer has not answered in time");
    EXPECT_EQ(world.clock.elapsed(), timeout.count());
}

TEST_F(PairJoinScenario, GivesUpAtTheDeadlineOnAPortThatNobodyServes) {
    const auto listener = listen();
    expectFailure(Case::timedOut, "the computer has not answered in time");
    EXPECT_EQ(world.clock.elapsed(), timeout.count());
}

TEST_F(PairJoinScenario, GivesUpAtTheDeadlineOnAComputerThatDoesNotClose) {
    Computer computer{.closes = false};
    world.alongside(serve(world, computer));
    expectFailure(Case::timedOut, "the computer has not answered in time");
    EXPECT_EQ(world.clock.elapsed(), timeout.count());
    EXPECT_THAT(computer.frame, testing::Not(IsEmpty()));
}

TEST_F(PairJoinScenario, FailsWhereThePortIsClosedBeforeItWasAccepted) {
    world.alongside(closeAt(world, listen(), 3s));
    expectFailure(Case::notRead, "the computer has not taken the introduction");
    EXPECT_EQ(world.clock.elapsed(), 3);
}

TEST_F(PairJoinScenario, FailsBehindAnotherMachineThatWasFaster) {
    PairListener listener(world.system, SecretBytes(asBytes(secretText)), port, 5s, listen());
    const auto first = world.run(world.network.connect(computerAddress, port, world.context.get_executor()));
    world.alongside([](World& own, PairListener& busy) -> Task<> {
        co_await own.clock.sleep(1s);
        try {
            co_await busy.awaitIntroduction();
        } catch (const PairListener::Error& error) {
            EXPECT_EQ(error.which(), PairListener::Error::Case::timedOut);
        }
    }(world, listener));
    expectFailure(Case::notRead, "the computer has not taken the introduction");
    EXPECT_EQ(world.clock.elapsed(), 1);
    fakes::runUntilIdle(world.context, world.clock); // while the first machine is still there
}

TEST_F(PairJoinScenario, FailsOnAComputerThatAnswers) {
    Computer computer{.answer = toBytes("x")};
    world.alongside(serve(world, computer));
    expectFailure(Case::notRead, "the computer has not taken the introduction");
}

TEST_F(PairJoinScenario, FailsOnAComputerThatClosesInTheMiddleOfTheFrame) {
    world.alongside([](World& own) -> Task<> {
        const auto listener = own.network.listen({.port = port, .keepAlive = std::nullopt}, own.context.get_executor());
        const std::unique_ptr<platform::Stream> stream = co_await listener->accept(own.context.get_executor());
        std::array<std::byte, 20> start{};
        co_await stream->readExact(start);
    }(world));
    expectFailure(Case::notRead, "the computer has not taken the introduction");
}

TEST_F(PairJoinScenario, ReportsABrokenConnectionInTheSystemsWordsWhileItSends) {
    world.network.faults.push_back({WireFaults{.resetAfter = 10}, {}});
    const auto listener = listen();
    expectFailure(Case::send, "cannot send the introduction: Connection reset by peer");
    EXPECT_EQ(world.clock.elapsed(), 0);
}

TEST_F(PairJoinScenario, ClosesItsConnectionHoweverItEnds) {
    const auto listener = listen();
    EXPECT_EQ(world.failure<PairJoinError>(join()).which(), Case::timedOut);
    const auto stream = world.run(listener->accept(world.context.get_executor()));
    const auto write = [](platform::Stream& to) -> Task<> { co_await to.writeAll(asBytes("x")); };
    EXPECT_THROW(world.run(write(*stream)), platform::SystemError);
}

TEST_F(PairJoinScenario, LeavesNoAlarmBehindASuccess) {
    pair();
    EXPECT_EQ(world.clock.pendingAlarms(), 0U);
}

// Payloads that cannot be used.

struct Fault {
    const char* what;
    std::function<void(PairingPayload&, const World&)> make;
    std::string why; ///< part of the text
};

std::string base64Of(std::size_t count, char fill) {
    return base64Encode(asBytes(std::string(count, fill)));
}

const Fault faults[] = {
    {"version 0", [](auto& it, auto&) { it.version = 0; }, "its version 0 is not one that we know"},
    {"version 2", [](auto& it, auto&) { it.version = 2; }, "its version 2 is not one that we know"},
    {"no key", [](auto& it, auto&) { it.peer_pubkey.clear(); }, "peer_pubkey"},
    {"short key", [](auto& it, auto&) { it.peer_pubkey = base64Of(31, 'k'); }, "peer_pubkey"},
    {"key that is no Base64", [](auto& it, auto&) { it.peer_pubkey = std::string(44, '*'); }, "peer_pubkey"},
    {"own key", [](auto& it, auto& world) { it.peer_pubkey = world.phoneKey.publicKey().base64(); }, "own key"},
    {"low order", [](auto& it, auto&) { it.peer_pubkey = base64Of(32, '\0'); }, "low order"},
    {"key that is not canonical", [](auto& it, auto&) { it.peer_pubkey = base64Of(32, '\xFF'); }, "canonical"},
    {"no secret", [](auto& it, auto&) { it.pairing_secret.clear(); }, ""},
    {"secret of 31 bytes", [](auto& it, auto&) { it.pairing_secret = base64Of(31, 's'); }, ""},
    {"secret of 33 bytes", [](auto& it, auto&) { it.pairing_secret = base64Of(33, 's'); }, ""},
    {"secret that is no Base64", [](auto& it, auto&) { it.pairing_secret = std::string(44, '*'); }, ""},
    {"no address", [](auto& it, auto&) { it.peer_ip.clear(); }, "peer_ip"},
    {"a name for an address", [](auto& it, auto&) { it.peer_ip = "example.org"; }, "peer_ip"},
    {"unspecified address", [](auto& it, auto&) { it.peer_ip = "0.0.0.0"; }, "peer_ip"},
    {"multicast address", [](auto& it, auto&) { it.peer_ip = "224.0.0.1"; }, "peer_ip"},
    {"broadcast address", [](auto& it, auto&) { it.peer_ip = "255.255.255.255"; }, "peer_ip"},
    {"port 0", [](auto& it, auto&) { it.peer_port = 0; }, "peer_port"},
    {"port -1", [](auto& it, auto&) { it.peer_port = -1; }, "peer_port"},
    {"port 65536", [](auto& it, auto&) { it.peer_port = 65536; }, "peer_port"},
    {"no host name", [](auto& it, auto&) { it.peer_hostname.clear(); }, "peer_hostname"},
    {"blank host name", [](auto& it, auto&) { it.peer_hostname = " \xC2\xA0"; }, "peer_hostname"},
    {"long host name", [](auto& it, auto&) { it.peer_hostname.assign(256, 'h'); }, "peer_hostname"},
    {"control character", [](auto& it, auto&) { it.peer_hostname = "a\x1B[2J"; }, "peer_hostname"},
    {"long subnet", [](auto& it, auto&) { it.peer_subnet.assign(65, '1'); }, "peer_subnet"},
    {"line end in the subnet", [](auto& it, auto&) { it.peer_subnet = "1\n2"; }, "peer_subnet"},
    {"long hardware address", [](auto& it, auto&) { it.peer_mac.assign(65, '1'); }, "peer_mac"},
    {"line end in the hardware address", [](auto& it, auto&) { it.peer_mac = "1\n2"; }, "peer_mac"},
};

TEST_F(PairJoinScenario, RefusesAPayloadWithOneFieldBrokenAndConnectsNowhere) {
    const auto listener = listen();
    for (const Fault& fault : faults) {
        SCOPED_TRACE(fault.what);
        PairingPayload broken = payload();
        fault.make(broken, world);
        const auto error = world.failure<PairJoinError>(join(broken));
        EXPECT_EQ(error.which(), Case::payload);
        EXPECT_THAT(error.description(), StartsWith("not a usable pairing code: "));
        EXPECT_THAT(error.description(), HasSubstr(fault.why));
        EXPECT_GT(error.description().size(), std::string("not a usable pairing code: ").size());
    }
    EXPECT_THAT(world.network.attempts, IsEmpty());
    EXPECT_EQ(world.clock.elapsed(), 0);
}

TEST_F(PairJoinScenario, UsesAPayloadAtTheLimitsOfItsFields) {
    PairingPayload largest = payload();
    largest.peer_port = 65535;
    largest.peer_hostname.assign(255, 'h');
    largest.peer_subnet.clear();
    largest.peer_mac.clear();
    const CheckedPayload checked = checkPayload(largest, world.phoneKey.publicKey());
    EXPECT_EQ(checked.computer.peer_port, 65535);
    EXPECT_EQ(checked.computer.peer_hostname, largest.peer_hostname);
    EXPECT_EQ(checked.computer.paired_at_epoch_ms, EpochMilliseconds());
    EXPECT_EQ(checked.key, world.computerKey.publicKey());
    EXPECT_EQ(toText(checked.secret.reveal()), secretText);
}

TEST_F(PairJoinScenario, MaySearchForAComputerByItsIpv6Address) {
    PairingPayload there = payload();
    there.peer_ip = "fe80::1%eth0";
    EXPECT_EQ(world.failure<PairJoinError>(join(there)).which(), Case::connect);
    EXPECT_THAT(world.network.attempts, ElementsAre(Pair("fe80::1%eth0", port)));
}

// Cancellation.

TEST_F(PairJoinScenario, PassesACancellationThroughWhileItConnects) {
    world.network.makeSilent(computerAddress);
    const std::exception_ptr error = fakes::cancelMidway(world.context, forget(join()));
    EXPECT_TRUE(fakes::isCancelled(error)) << (error ? describe(error) : "it ended well");
    EXPECT_EQ(world.clock.pendingAlarms(), 0U);
}

TEST_F(PairJoinScenario, PassesACancellationThroughWhileItWaitsForTheComputer) {
    const auto listener = listen();
    const std::exception_ptr error = fakes::cancelMidway(world.context, forget(join()));
    EXPECT_TRUE(fakes::isCancelled(error)) << (error ? describe(error) : "it ended well");
    EXPECT_EQ(world.clock.pendingAlarms(), 0U);
}

TEST(PairJoinErrorTest, HasTheTextOfItsCase) {
    EXPECT_EQ(PairJoinError::payload("x").description(), "not a usable pairing code: x");
    EXPECT_EQ(PairJoinError::connect("x").description(), "cannot connect to the computer: x");
    EXPECT_EQ(PairJoinError::send("x").description(), "cannot send the introduction: x");
    EXPECT_EQ(PairJoinError::notRead().description(), "the computer has not taken the introduction");
    EXPECT_EQ(PairJoinError::timedOut().description(), "the computer has not answered in time");
}

} // namespace
} // namespace orlinth
