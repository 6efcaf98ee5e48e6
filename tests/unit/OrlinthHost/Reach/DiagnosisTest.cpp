#include "OrlinthHost/Reach/Diagnosis.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

namespace orlinth::host {

static void PrintTo(Cause cause, std::ostream* out) {
    *out << idOf(cause);
}

namespace {

using Connect = Evidence::Connect;
using Device = Evidence::Neighbour::Device;
using Icmp = Evidence::Icmp;
using Interface = Evidence::Route::Interface;
using Proof = Evidence::Proof;
using Sender = Evidence::Icmp::Sender;
using State = Evidence::Neighbour::State;
using Way = Evidence::Route::Way;

constexpr std::uint8_t v4 = 3; // "destination unreachable", in ICMP and in ICMPv6
constexpr std::uint8_t v6 = 1;
constexpr int silence = ETIMEDOUT;

/// What is seen when a connection ends with this error number, of an address in our own network.
Evidence onLink(int errorNumber, std::optional<Evidence::Neighbour> neighbour = Evidence::Neighbour()) {
    return {.connect = Evidence::connectOf(errorNumber),
            .neighbour = neighbour,
            .route = Evidence::Route{.way = Way::onLink, .isInRealNetwork = true},
            .isGatewayHere = true};
}
Evidence onLink(int errorNumber, Icmp icmp, State state = State::valid) {
    Evidence evidence = onLink(errorNumber, Evidence::Neighbour{.state = state});
    evidence.icmp = icmp;
    return evidence;
}
Evidence behindRouter(int errorNumber, std::optional<Icmp> icmp = std::nullopt) {
    return {.connect = Evidence::connectOf(errorNumber),
            .icmp = icmp,
            .route = Evidence::Route{.way = Way::gateway},
            .isGatewayHere = true};
}
Evidence withoutWay(int errorNumber) {
    return {.connect = Evidence::connectOf(errorNumber), .route = Evidence::Route{.way = Way::none}};
}
Evidence proved(Proof proof) {
    Evidence evidence = onLink(0);
    evidence.proof = proof;
    return evidence;
}
/// The same evidence with something else besides.
template <typename Change>
Evidence with(Evidence evidence, Change change) {
    change(evidence);
    return evidence;
}
Evidence through(Interface interface, Evidence evidence) {
    evidence.route = Evidence::Route{.way = Way::onLink, .interface = interface, .isInRealNetwork = true};
    return evidence;
}

struct Row {
    const char* seen;
    Evidence evidence;
    Cause cause;
};

void expectCauses(std::initializer_list<Row> rows) {
    for (const Row& row : rows) {
        EXPECT_EQ(diagnose(row.evidence), row.cause) << row.seen;
    }
}

/// What kernels were measured to say in each of these situations.
TEST(Diagnosis, KnowsEverySituationByWhatTheKernelSaysOfIt) {
    const auto dropped = onLink(silence);
    expectCauses({
        {"port closed, or a TCP reset by a filter", onLink(ECONNREFUSED), Cause::notListening},
        {"port unreachable, by a filter", onLink(ECONNREFUSED, {Sender::phone, v4, 3}), Cause::forbidden},
        {"admin prohibited", onLink(EHOSTUNREACH, {Sender::phone, v4, 13}), Cause::forbidden},
        {"host unreachable, by a filter", onLink(EHOSTUNREACH, {Sender::phone, v4, 1}), Cause::forbidden},
        {"host prohibited", onLink(EHOSTUNREACH, {Sender::phone, v4, 10}), Cause::forbidden},
        {"net prohibited", onLink(ENETUNREACH, {Sender::phone, v4, 9}), Cause::forbidden},
        {"input dropped", with(dropped, [](Evidence& it) { it.isOtherPortRefused = true; }), Cause::swallowed},
        {"all dropped", with(dropped, [](Evidence& it) { it.neighbour->wasConfirmedSince = true; }), Cause::swallowed},
        {"IPv6, admin prohibited", onLink(EACCES, {Sender::phone, v6, 1}), Cause::forbidden},
        {"IPv6, absent", onLink(EHOSTUNREACH, {Sender::ownAddress, v6, 3}, State::failed), Cause::notThere},
        {"absent", onLink(EHOSTUNREACH, {Sender::ownAddress, v4, 1}, State::failed), Cause::notThere},
        {"gone with an entry that has failed since", onLink(silence, Evidence::Neighbour{.state = State::failed}),
         Cause::notThere},
        {"gone with an entry that is still good", dropped, Cause::silent},
        {"absent behind a router", behindRouter(EHOSTUNREACH, Icmp{Sender::router, v4, 1}), Cause::routerSays},
        {"rejected by a router", behindRouter(EHOSTUNREACH, Icmp{Sender::router, v4, 13}), Cause::routerSays},
        {"dropped behind a router", behindRouter(silence), Cause::otherNetwork},
        {"refused behind a router", behindRouter(ECONNREFUSED), Cause::otherNetwork},
        {"the router itself is gone", behindRouter(EHOSTUNREACH, Icmp{Sender::ownAddress, v4, 1}), Cause::otherNetwork},
        {"no route", withoutWay(ENETUNREACH), Cause::noRoute},
        {"unreachable route", withoutWay(EHOSTUNREACH), Cause::noRoute},
        {"prohibited route", withoutWay(EACCES), Cause::noRoute},
        {"black hole", withoutWay(EINVAL), Cause::noRoute},
        {"no route, and the kernel was not asked for it", {.connect = Connect::networkUnreachable}, Cause::noRoute},
        {"own output dropped", with(dropped, [](Evidence& it) { it.isDatagramForbidden = true; }), Cause::ownOutgoing},
        {"own output rejected", with(dropped, [](Evidence& it) { it.isDatagramForbidden = true; }), Cause::ownOutgoing},
        {"a filter for TCP alone", dropped, Cause::silent},
        {"a filter that says so", onLink(EPERM), Cause::ownOutgoing},
        {"cable out",
         with(onLink(silence, Evidence::Neighbour{.state = State::incomplete}),
              [](Evidence& it) { it.hasNetwork = false; }),
         Cause::noNetwork},
        {"nobody answers the question for the hardware address yet",
         onLink(silence, Evidence::Neighbour{.state = State::incomplete}), Cause::notThere},
        {"link-local without its interface", onLink(EINVAL, std::nullopt), Cause::noRoute},
        {"link-local with an interface that is gone", withoutWay(EINVAL), Cause::noRoute},
    });
}

/// A refusal of this computer's own filter carries its own address, as does the word that a question for the hardware
/// address was in vain.
TEST(Diagnosis, KnowsARefusalOfThisComputerItself) {
    const auto asked = [](State state, Icmp icmp) { return onLink(EHOSTUNREACH, icmp, state); };
    Evidence unknownDevice = asked(State::valid, {Sender::ownAddress, v4, 1});
    unknownDevice.neighbour = std::nullopt;
    expectCauses({
        {"port unreachable", onLink(ECONNREFUSED, {Sender::ownAddress, v4, 3}), Cause::ownOutgoing},
        {"port unreachable, and nobody is there", onLink(ECONNREFUSED, {Sender::ownAddress, v4, 3}, State::failed),
         Cause::ownOutgoing},
        {"admin prohibited", asked(State::valid, {Sender::ownAddress, v4, 13}), Cause::ownOutgoing},
        {"host prohibited", asked(State::failed, {Sender::ownAddress, v4, 10}), Cause::ownOutgoing},
        {"host unreachable, of a phone that is there", asked(State::valid, {Sender::ownAddress, v4, 1}),
         Cause::ownOutgoing},
        {"host unreachable, of nobody", asked(State::failed, {Sender::ownAddress, v4, 1}), Cause::notThere},
        {"host unreachable, still being asked", asked(State::incomplete, {Sender::ownAddress, v4, 1}), Cause::notThere},
        {"host unreachable, and the table could not be read", unknownDevice, Cause::notThere},
        {"IPv6, admin prohibited", onLink(EACCES, {Sender::ownAddress, v6, 1}), Cause::ownOutgoing},
        {"IPv6, port unreachable", onLink(ECONNREFUSED, {Sender::ownAddress, v6, 4}), Cause::ownOutgoing},
        {"IPv6, address unreachable, of a phone that is there", asked(State::valid, {Sender::ownAddress, v6, 3}),
         Cause::ownOutgoing},
        {"IPv6, address unreachable, of nobody", asked(State::failed, {Sender::ownAddress, v6, 3}), Cause::notThere},
        {"on the way to a router", behindRouter(EHOSTUNREACH, Icmp{Sender::ownAddress, v4, 13}), Cause::ownOutgoing},
        {"by a tunnel that takes the network",
         through(Interface::tunnel, asked(State::valid, {Sender::ownAddress, v4, 13})), Cause::vpnTakesLan},
        {"a TCP reset, which might be the phone's", onLink(ECONNREFUSED), Cause::notListening},
    });
}

TEST(Diagnosis, KnowsWhoTookTheConnection) {
    expectCauses({
        {"the phone", proved(Proof::phonesKey), Cause::none},
        {"another Orlinth", proved(Proof::otherKey), Cause::otherKey},
        {"a web server", proved(Proof::otherProtocol), Cause::notOrlinth},
        {"a tarpit", proved(Proof::silence), Cause::silentPort},
        {"nobody has asked yet", onLink(0), Cause::unknown},
    });
}

TEST(Diagnosis, KnowsAnotherDeviceByItsHardwareAddress) {
    constexpr Evidence::Neighbour another{.device = Device::other};
    expectCauses({
        {"refused by the phone", onLink(ECONNREFUSED, Evidence::Neighbour{.device = Device::phone}),
         Cause::notListening},
        {"refused by another", onLink(ECONNREFUSED, another), Cause::otherDevice},
        {"forbidden by another",
         with(onLink(EHOSTUNREACH, another), [](Evidence& it) { it.icmp = Icmp{Sender::phone, v4, 13}; }),
         Cause::otherDevice},
        {"dropped by another", with(onLink(silence, another), [](Evidence& it) { it.isOtherPortRefused = true; }),
         Cause::otherDevice},
        {"an entry of another that may be out of date", onLink(silence, another), Cause::silent},
    });
}

TEST(Diagnosis, KnowsThatThePhoneHasMoved) {
    expectCauses({
        {"nobody at the old address", with(onLink(EHOSTUNREACH), [](Evidence& it) { it.isProvedElsewhere = true; }),
         Cause::moved},
        {"somebody else at the old address",
         with(proved(Proof::otherKey), [](Evidence& it) { it.isProvedElsewhere = true; }), Cause::moved},
        {"at both", with(proved(Proof::phonesKey), [](Evidence& it) { it.isProvedElsewhere = true; }), Cause::none},
    });
}

TEST(Diagnosis, KnowsWhatTakesTheWayToTheOwnNetwork) {
    const Evidence elsewhere{.connect = Connect::timedOut,
                             .route = Evidence::Route{.way = Way::gateway, .interface = Interface::tunnel}};
    expectCauses({
        {"tunnel, silence", through(Interface::tunnel, onLink(silence)), Cause::vpnTakesLan},
        {"tunnel, and somebody there", through(Interface::tunnel, proved(Proof::otherKey)), Cause::vpnTakesLan},
        {"tunnel, and the kill switch too",
         with(through(Interface::tunnel, onLink(silence)), [](Evidence& it) { it.isDatagramForbidden = true; }),
         Cause::vpnTakesLan},
        {"tunnel that leads to the phone", through(Interface::tunnel, proved(Proof::phonesKey)), Cause::none},
        {"containers", through(Interface::containerBridge, onLink(EHOSTUNREACH)), Cause::containerNetwork},
        {"tunnel to a network that is not ours", elsewhere, Cause::otherNetwork},
    });
}

/// Every hint is needed: without it, the phone may just be off.
TEST(Diagnosis, SuspectsTheWiFiOnlyIfEverythingSpeaksAgainstIt) {
    const Evidence apart = with(onLink(EHOSTUNREACH, {Sender::ownAddress, v4, 1}, State::failed), [](Evidence& it) {
        it.isWireless = true;
        it.hasMetNobodyElse = true;
    });
    expectCauses({
        {"everything", apart, Cause::isolated},
        {"after silence", with(apart, [](Evidence& it) { it.connect = Connect::timedOut; }), Cause::isolated},
        {"a cable", with(apart, [](Evidence& it) { it.isWireless = false; }), Cause::notThere},
        {"others are there", with(apart, [](Evidence& it) { it.hasMetNobodyElse = false; }), Cause::notThere},
        {"nobody is there, the gateway neither", with(apart, [](Evidence& it) { it.isGatewayHere = false; }),
         Cause::notThere},
        {"the phone was here before", with(apart, [](Evidence& it) { it.wasPhoneEverMetHere = true; }),
         Cause::notThere},
        {"the gateway answers for the phone", onLink(silence, Evidence::Neighbour{.device = Device::gateway}),
         Cause::isolated},
        {"and refuses", onLink(ECONNREFUSED, Evidence::Neighbour{.device = Device::gateway}), Cause::isolated},
    });
}

TEST(Diagnosis, FindsNoFaultWithThePhoneIfThisComputerHasNoNetwork) {
    const auto isCutOff = [](Evidence& it) { it.hasNetwork = false; };
    expectCauses({
        {"silence, though a route is still there", with(onLink(silence), isCutOff), Cause::noNetwork},
        {"no route", with(withoutWay(ENETUNREACH), isCutOff), Cause::noNetwork},
        {"IPv6 alone, which does", with(proved(Proof::phonesKey), isCutOff), Cause::none},
    });
}

TEST(Diagnosis, DoesNotGuess) {
    expectCauses({
        {"nothing was measured", {}, Cause::unknown},
        {"this computer has run out of something", onLink(ENOBUFS), Cause::unknown},
        {"access denied, and nobody says by whom", onLink(EACCES), Cause::unknown},
    });
}

TEST(Diagnosis, BelievesTheNewestWord) {
    constexpr Evidence::Neighbour leftMeanwhile{.state = State::failed, .wasConfirmedSince = true};
    constexpr Evidence::Neighbour onceTheGateways{.state = State::failed, .device = Device::gateway};
    const Evidence refusedUnderway =
        with(behindRouter(silence, Icmp{Sender::router, v4, 13}), [](Evidence& it) { it.isDatagramForbidden = true; });
    expectCauses({
        {"it answered and then left", onLink(silence, leftMeanwhile), Cause::notThere},
        {"the gateway no longer answers for it", onLink(silence, onceTheGateways), Cause::notThere},
        {"a router has answered, so this computer did send", refusedUnderway, Cause::routerSays},
        {"somebody behind a router took the connection", behindRouter(0), Cause::unknown},
    });
}

TEST(Diagnosis, TurnsErrorNumbersIntoOutcomes) {
    EXPECT_EQ(Evidence::connectOf(0), Connect::connected);
    EXPECT_EQ(Evidence::connectOf(ECONNREFUSED), Connect::refused);
    EXPECT_EQ(Evidence::connectOf(ETIMEDOUT), Connect::timedOut);
    EXPECT_EQ(Evidence::connectOf(EMFILE), Connect::failed);
}

} // namespace
} // namespace orlinth::host
