#include "OrlinthHost/Reach/PhoneCheck.h"

#include "OrlinthHost/Phones/AddressMemory.h"
#include "OrlinthHost/Phones/Whereabouts.h"
#include "fakes/HomeNetwork.h"
#include "fakes/ProvingPhone.h"
#include "platform/Deadline.h"

#include <gmock/gmock.h>

#include <cerrno>

namespace orlinth::host {
namespace {

using fakes::FakeNetworkInterfaces;
using fakes::MemoryNeighbours;
using platform::IcmpReport;
using platform::IpAddress;
using platform::NeighbourState;
using testing::ElementsAre;
using testing::IsEmpty;

const IpAddress own = ip("192.168.7.10");
const IpAddress router = ip("192.168.7.1");
const IpAddress phone = ip("192.168.7.30");

/// This computer is 192.168.7.10 in 192.168.7.0/24, by Wi-Fi and behind a router. The phone was last at .30.
class PhoneCheckTest : public testing::Test {
protected:
    PhoneCheckTest() {
        joinHome(world);
        putOnLink(phone);
        record.peer_ip = "192.168.7.30";
    }

    PhoneFindings check() { return world.run(checkPhone(home, record)); }
    Cause cause() { return check().cause; }

    void putOnLink(const IpAddress& address) {
        platform::Route way;
        way.interfaceIndex = 2;
        way.interface = "wlan0";
        way.source = own;
        world.routes.put(address, std::move(way));
    }
    void putNeighbour(NeighbourState state, const MacAddress& mac = phoneMac,
                      std::optional<Seconds> confirmedAge = std::nullopt) {
        platform::Neighbour entry = MemoryNeighbours::entry(phone, state, bytesOf(mac));
        entry.confirmedAge = confirmedAge;
        world.neighbours.put(entry);
    }
    /// The entry changes while the look is under way.
    void putNeighbourAfter(Seconds delay, NeighbourState state, std::optional<Seconds> confirmedAge = std::nullopt) {
        world.alongside(putLater(delay, state, confirmedAge));
    }
    Task<> putLater(Seconds delay, NeighbourState state, std::optional<Seconds> confirmedAge) {
        co_await world.clock.sleep(delay);
        putNeighbour(state, phoneMac, confirmedAge);
    }
    /// Returns when a look that was called off has ended.
    Task<> cancelled(Seconds after) {
        const bool hasEnded = co_await platform::endsWithin(world.clock, after, justCheck());
        EXPECT_FALSE(hasEnded);
    }
    Task<> justCheck() {
        const PhoneFindings findings = co_await checkPhone(home, record);
        ADD_FAILURE() << "it has ended by itself: " << idOf(findings.cause);
    }
    void fail(int number, std::optional<IcmpReport> icmp = std::nullopt, Seconds after = 2ms) {
        world.probe.fail(phone, fakes::World::phonePort, number, std::move(icmp), after);
    }
    void refuseOtherPort() { world.probe.fail(phone, platform::discardPort, ECONNREFUSED); }
    void learn(const MacAddress& mac) {
        memory().reached(record.peer_pubkey, {.host = host("192.168.7.30"), .mac = mac, .network = homeNetwork});
    }
    [[nodiscard]] AddressMemory memory() { return {world.files, world.clock, world.log, home.dataDirectory()}; }
    [[nodiscard]] std::vector<std::uint16_t> portsAsked() const {
        std::vector<std::uint16_t> ports;
        for (const auto& attempt : world.probe.attempts) {
            ports.push_back(attempt.port);
        }
        return ports;
    }

    fakes::World world;
    Home home{.system = world.system, .executor = world.context.get_executor()};
    PeerRecord record = world.phoneRecord();
};

TEST_F(PhoneCheckTest, FindsAPhoneThatIsThereAndRemembersIt) {
    home.peers().upsert(record);
    putNeighbour(NeighbourState::reachable);
    fakes::proveAt(world, phone, world.phoneKey, 4ms);
    const PhoneFindings found = check();
    EXPECT_EQ(found.cause, Cause::none);
    EXPECT_EQ(found.details.phone, "Pixel-8");
    EXPECT_DOUBLE_EQ(found.duration.count(), 0.004);
    EXPECT_EQ(world.probe.datagrams, 0u) << "nothing else is sent";
    EXPECT_EQ(world.probe.attempts.size(), 1u);
    EXPECT_EQ(world.neighbours.watchCount(), 0u);
    const std::vector<KnownAddress> known = memory().addressesOf(record.peer_pubkey);
    ASSERT_EQ(known.size(), 1u);
    EXPECT_EQ(known.front().mac, phoneMac);
    EXPECT_EQ(known.front().network, homeNetwork);
    EXPECT_TRUE(known.front().reached.has_value());
}

TEST_F(PhoneCheckTest, RemembersNothingOfAPhoneThatWasRemovedMeanwhile) {
    putNeighbour(NeighbourState::reachable);
    fakes::proveAt(world, phone, world.phoneKey, 4ms);
    EXPECT_EQ(check().cause, Cause::none);
    EXPECT_TRUE(memory().addressesOf(record.peer_pubkey).empty());
}

TEST_F(PhoneCheckTest, FindsThatOrlinthIsNotOpen) {
    learn(phoneMac);
    putNeighbour(NeighbourState::reachable);
    fail(ECONNREFUSED);
    const PhoneFindings found = check();
    EXPECT_EQ(found.cause, Cause::notListening);
    EXPECT_DOUBLE_EQ(found.duration.count(), 0.002) << "at once";
    EXPECT_FALSE(found.details.hasPushToken);
    record.peer_fcm_token = "token";
    EXPECT_TRUE(check().details.hasPushToken);
}

TEST_F(PhoneCheckTest, FindsThatNobodyHasTheAddress) {
    fail(EHOSTUNREACH, IcmpReport{.type = 3, .code = 1, .from = own}, 3070ms);
    putNeighbourAfter(1ms, NeighbourState::incomplete);
    const PhoneFindings found = check();
    EXPECT_EQ(found.cause, Cause::notThere);
    EXPECT_DOUBLE_EQ(found.duration.count(), 3.07);
    EXPECT_THAT(portsAsked(), ElementsAre(fakes::World::phonePort)) << "there is nobody to ask for more";
    EXPECT_EQ(world.probe.datagrams, 0u);
}

TEST_F(PhoneCheckTest, EndsWhenThePhonesEntryFails) {
    putNeighbour(NeighbourState::stale, phoneMac, 300s);
    putNeighbourAfter(1ms, NeighbourState::delay, 300s);
    putNeighbourAfter(5s, NeighbourState::probe, 300s);
    putNeighbourAfter(8100ms, NeighbourState::failed, 308s);
    const PhoneFindings found = check();
    EXPECT_EQ(found.cause, Cause::notThere);
    EXPECT_DOUBLE_EQ(found.duration.count(), 8.1);
}

TEST_F(PhoneCheckTest, FindsAPhoneThatSwallowsConnections) {
    putNeighbour(NeighbourState::stale, phoneMac, 300s);
    refuseOtherPort();
    const PhoneFindings found = check();
    EXPECT_EQ(found.cause, Cause::swallowed);
    EXPECT_DOUBLE_EQ(found.duration.count(), 3.5);
    EXPECT_THAT(portsAsked(), ElementsAre(fakes::World::phonePort, platform::discardPort));
    EXPECT_EQ(world.probe.datagrams, 1u);
}

TEST_F(PhoneCheckTest, FindsAPhoneThatAnswersNothingButItsAddress) {
    putNeighbourAfter(3ms, NeighbourState::reachable, 0s);
    EXPECT_EQ(cause(), Cause::swallowed);
}

TEST_F(PhoneCheckTest, FindsAPhoneThatIsConfirmedLate) {
    putNeighbour(NeighbourState::stale, phoneMac, 300s);
    putNeighbourAfter(5100ms, NeighbourState::reachable, 0s);
    const PhoneFindings found = check();
    EXPECT_EQ(found.cause, Cause::swallowed);
    EXPECT_DOUBLE_EQ(found.duration.count(), 5.1);
}

/// The system counts in hundredths of a second and rounds down: a confirmation just before looks like one since then.
TEST_F(PhoneCheckTest, TakesAPhoneThatWasMetJustBeforeForNoAnswer) {
    putNeighbour(NeighbourState::reachable, phoneMac, 0s);
    putNeighbourAfter(3499ms, NeighbourState::stale, 3490ms);
    putNeighbourAfter(3501ms, NeighbourState::probe, 3500ms);
    putNeighbourAfter(8100ms, NeighbourState::failed, 8090ms);
    const PhoneFindings found = check();
    EXPECT_EQ(found.cause, Cause::notThere);
    EXPECT_DOUBLE_EQ(found.duration.count(), 8.1);
}

TEST_F(PhoneCheckTest, DoesNotTakeAPhoneThatWasMetJustBeforeForOneThatSwallowsConnections) {
    putNeighbour(NeighbourState::reachable, phoneMac, 0s);
    putNeighbourAfter(3499ms, NeighbourState::reachable, 3490ms);
    putNeighbourAfter(8599ms, NeighbourState::reachable, 8590ms);
    EXPECT_EQ(cause(), Cause::silent);
}

TEST_F(PhoneCheckTest, FindsThatAPhoneHasAnsweredAtOnce) {
    putNeighbour(NeighbourState::stale, phoneMac, 300s);
    putNeighbourAfter(3499ms, NeighbourState::reachable, 3500ms);
    const PhoneFindings found = check();
    EXPECT_EQ(found.cause, Cause::swallowed);
    EXPECT_DOUBLE_EQ(found.duration.count(), 3.5);
    EXPECT_TRUE(found.evidence.neighbour->wasConfirmedSince);
}

TEST_F(PhoneCheckTest, FindsAPhoneThatForbidsConnections) {
    putNeighbour(NeighbourState::reachable);
    for (const int code : {9, 10, 13}) {
        fail(EHOSTUNREACH, IcmpReport{.type = 3, .code = static_cast<std::uint8_t>(code), .from = phone});
        EXPECT_EQ(cause(), Cause::forbidden) << code;
    }
}

TEST_F(PhoneCheckTest, DoesNotGuessAboutAPhoneThatIsSilent) {
    putNeighbour(NeighbourState::reachable, phoneMac, 40s);
    const PhoneFindings found = check();
    EXPECT_EQ(found.cause, Cause::silent);
    EXPECT_DOUBLE_EQ(found.duration.count(), 8.6);
    EXPECT_EQ(found.details.seenBefore, 40s);
}

TEST_F(PhoneCheckTest, FindsAnotherKey) {
    const platform::PrivateKey other = platform::PrivateKey::generate();
    fakes::proveAt(world, phone, other);
    EXPECT_EQ(cause(), Cause::otherKey);
    EXPECT_THAT(memory().addressesOf(record.peer_pubkey), IsEmpty());
}

TEST_F(PhoneCheckTest, FindsAnotherDevice) {
    learn(phoneMac);
    putNeighbour(NeighbourState::reachable, otherMac);
    fail(ECONNREFUSED);
    EXPECT_EQ(cause(), Cause::otherDevice);
}

TEST_F(PhoneCheckTest, FindsAnotherProtocol) {
    fakes::speakHttpAt(world, phone);
    EXPECT_EQ(cause(), Cause::notOrlinth);
}

TEST_F(PhoneCheckTest, FindsAPortThatSaysNothing) {
    fakes::beSilentAt(world, phone);
    const PhoneFindings found = check();
    EXPECT_EQ(found.cause, Cause::silentPort);
    EXPECT_DOUBLE_EQ(found.duration.count(), 3);
}

TEST_F(PhoneCheckTest, DoesNotAccuseASilentPortThatHadTooLittleTime) {
    fakes::beSilentAt(world, phone);
    const PhoneCheckTimes hurried{.whole = 1s};
    const PhoneFindings found = world.run(checkPhone(home, record, hurried));
    EXPECT_EQ(found.cause, Cause::unknown);
    EXPECT_DOUBLE_EQ(found.duration.count(), 1);
}

TEST_F(PhoneCheckTest, FindsAnotherNetwork) {
    record.peer_ip = "10.1.4.30";
    record.peer_subnet = "10.1.4.0/24";
    world.routes.putVia(ip("10.1.4.30"), router);
    const PhoneFindings found = check();
    EXPECT_EQ(found.cause, Cause::otherNetwork);
    EXPECT_DOUBLE_EQ(found.duration.count(), 4);
    EXPECT_EQ(found.details.phonesNetwork, "10.1.4.0/24");
    EXPECT_EQ(found.details.ownNetwork, "192.168.7.0/24");
    EXPECT_THAT(portsAsked(), ElementsAre(fakes::World::phonePort)) << "only that leaves this network";
    EXPECT_EQ(world.probe.datagrams, 0u);
}

TEST_F(PhoneCheckTest, TakesNoNetworkOfTheRecordThatTheAddressIsNotIn) {
    record.peer_ip = "10.1.4.30";
    world.routes.putVia(ip("10.1.4.30"), router);
    for (const char* const subnet :
         {"192.168.7.0/24", "10.1.4.0", "10.1.4.0/", "10.1.4.0/33", "10.1.4.0/24x", "", "/"}) {
        record.peer_subnet = subnet;
        EXPECT_EQ(check().details.phonesNetwork, "") << subnet;
    }
}

TEST_F(PhoneCheckTest, FindsThatARouterRefuses) {
    record.peer_ip = "10.1.4.30";
    world.routes.putVia(ip("10.1.4.30"), router);
    world.probe.fail(ip("10.1.4.30"), fakes::World::phonePort, EHOSTUNREACH,
                     IcmpReport{.type = 3, .code = 13, .from = router});
    EXPECT_EQ(cause(), Cause::routerSays);
}

TEST_F(PhoneCheckTest, FindsThatThereIsNoWay) {
    for (const int number : {ENETUNREACH, EHOSTUNREACH, EACCES, EINVAL}) {
        world.routes.close(phone, number);
        EXPECT_EQ(cause(), Cause::noRoute) << number;
    }
    EXPECT_THAT(world.probe.attempts, IsEmpty());
}

TEST_F(PhoneCheckTest, FindsAVpnThatTakesTheNetwork) {
    world.interfaces.addresses.push_back(FakeNetworkInterfaces::ipv4("tun0", {10, 8, 0, 2}));
    world.interfaces.addresses.back().isPointToPoint = true;
    world.routes.putOnLink(phone, "tun0");
    const PhoneFindings found = check();
    EXPECT_EQ(found.cause, Cause::vpnTakesLan);
    EXPECT_EQ(found.details.interface, "tun0");
    EXPECT_EQ(found.details.phonesNetwork, "192.168.7.0/24");
    EXPECT_DOUBLE_EQ(found.duration.count(), 4);
    EXPECT_THAT(portsAsked(), ElementsAre(fakes::World::phonePort)) << "nothing more goes into the tunnel";
    EXPECT_EQ(world.probe.datagrams, 0u);
}

TEST_F(PhoneCheckTest, DoesNotBlameAVpnByWhichThePhoneIsReached) {
    world.interfaces.addresses.push_back(FakeNetworkInterfaces::ipv4("tun0", {10, 8, 0, 2}));
    world.interfaces.addresses.back().isPointToPoint = true;
    world.routes.putOnLink(phone, "tun0");
    fakes::proveAt(world, phone, world.phoneKey);
    EXPECT_EQ(cause(), Cause::none);
}

TEST_F(PhoneCheckTest, FindsAContainerNetworkThatTakesTheNetwork) {
    world.interfaces.addresses.push_back(FakeNetworkInterfaces::ipv4("docker0", {192, 168, 7, 17}));
    world.routes.putOnLink(phone, "docker0");
    fail(EHOSTUNREACH, IcmpReport{.type = 3, .code = 1, .from = own}, 3s);
    EXPECT_EQ(cause(), Cause::containerNetwork);
}

TEST_F(PhoneCheckTest, FindsItsOwnFirewall) {
    putNeighbour(NeighbourState::reachable);
    world.probe.forbidDatagrams(phone);
    const PhoneFindings found = check();
    EXPECT_EQ(found.cause, Cause::ownOutgoing);
    EXPECT_DOUBLE_EQ(found.duration.count(), 1) << "as soon as that is certain";
    EXPECT_THAT(portsAsked(), ElementsAre(fakes::World::phonePort));
}

TEST_F(PhoneCheckTest, FindsThatItsOwnFirewallRejects) {
    putNeighbour(NeighbourState::reachable);
    for (const auto& [number, code] :
         {std::pair(ECONNREFUSED, 3), std::pair(EHOSTUNREACH, 13), std::pair(EHOSTUNREACH, 1)}) {
        fail(number, IcmpReport{.type = 3, .code = static_cast<std::uint8_t>(code), .from = own}, 1s);
        EXPECT_EQ(cause(), Cause::ownOutgoing) << code;
    }
}

TEST_F(PhoneCheckTest, FindsAWifiThatKeepsItsDevicesApart) {
    putNeighbour(NeighbourState::reachable, routerMac);
    EXPECT_EQ(cause(), Cause::isolated) << "the router answers for everybody";
}

TEST_F(PhoneCheckTest, KnowsAPhoneThatIsTheRouterItself) {
    record.peer_ip = "192.168.7.1";
    putOnLink(router);
    world.probe.fail(router, fakes::World::phonePort, ECONNREFUSED);
    EXPECT_EQ(cause(), Cause::notListening);
}

TEST_F(PhoneCheckTest, FindsThatThereIsNoNetwork) {
    world.interfaces.addresses.front().isRunning = false; // the cable is out, and the route still there
    EXPECT_EQ(cause(), Cause::noNetwork);
    EXPECT_THAT(world.probe.attempts, IsEmpty());
    world.interfaces.addresses = {FakeNetworkInterfaces::ipv4("docker0", {172, 17, 0, 1})};
    EXPECT_EQ(cause(), Cause::noNetwork) << "containers are no network";
}

TEST_F(PhoneCheckTest, NeedsNoNetworkForThisComputer) {
    world.interfaces.addresses.clear();
    record.peer_ip = "127.0.0.1";
    world.routes.putOwn(ip("127.0.0.1"));
    fakes::proveAt(world, ip("127.0.0.1"), world.phoneKey);
    EXPECT_EQ(cause(), Cause::none);
    EXPECT_THAT(memory().addressesOf(record.peer_pubkey), IsEmpty()) << "it is no phone's address";
}

TEST_F(PhoneCheckTest, MeasuresAsMuchAsTheSystemAllows) {
    world.routes.errorNumber = ENOBUFS;
    world.neighbours.listErrno = ENOBUFS;
    world.neighbours.watchErrno = EMFILE;
    fakes::proveAt(world, phone, world.phoneKey);
    EXPECT_EQ(cause(), Cause::none);
    world.probe.errorNumber = EMFILE;
    EXPECT_EQ(cause(), Cause::unknown);
}

TEST_F(PhoneCheckTest, LooksUpAName) {
    record.peer_ip = "pixel.home";
    EXPECT_EQ(cause(), Cause::notListening) << "nobody listens there";
    EXPECT_THAT(world.probe.attempts, IsEmpty());
    const std::unique_ptr<platform::Listener> listener =
        world.network.listen({.port = fakes::World::phonePort, .keepAlive = std::nullopt}, home.executor);
    EXPECT_EQ(cause(), Cause::silentPort);
}

TEST_F(PhoneCheckTest, CanBeCancelledAtAnyTime) {
    putNeighbour(NeighbourState::stale, phoneMac, 300s);
    EXPECT_TRUE(world.run(platform::endsWithin(world.clock, 100s, cancelled(500ms))));
    EXPECT_TRUE(world.run(platform::endsWithin(world.clock, 100s, cancelled(2s))));
    EXPECT_EQ(world.probe.underWay(), 0u);
    EXPECT_EQ(world.neighbours.watchCount(), 0u);
}

} // namespace
} // namespace orlinth::host
