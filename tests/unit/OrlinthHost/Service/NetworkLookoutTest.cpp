#include "OrlinthHost/Service/NetworkLookout.h"

#include "OrlinthHost/Phones/AddressMemory.h"
#include "fakes/HomeNetwork.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

namespace orlinth::host {
namespace {

using fakes::FakeNetworkInterfaces;
using platform::NeighbourState;
using testing::ElementsAre;
using testing::IsEmpty;

/// At home by wlan0; a phone was met there.
class NetworkLookoutTest : public testing::Test {
protected:
    NetworkLookoutTest() {
        joinHome(world_);
        AddressMemory(world_.files, world_.clock, world_.log, home_.dataDirectory())
            .reached(phone_,
                     {.host = HostAddress::parse("192.168.7.30", "wlan0").value(), .mac = phoneMac, .network = {}});
    }
    ~NetworkLookoutTest() override { lookout_.stop(); }

    void leave() {
        world_.interfaces.addresses.clear();
        world_.routes.gateways.clear();
    }
    void start() {
        lookout_.start();
        pass(0s);
    }
    /// The system has news; the time after which they are looked at passes.
    void tell() {
        world_.networkNews.tell();
        pass(NetworkLookout::settleTime);
    }
    void pass(Seconds time) { world_.run(world_.clock.sleep(time)); }
    void put(const platform::Neighbour& neighbour) {
        world_.neighbours.put(neighbour);
        pass(0s);
    }

    fakes::World world_;
    Home home_{world_.system, world_.context.get_executor()};
    const PeerKey phone_ = world_.phoneRecord().peer_pubkey;
    std::vector<std::string> told_;
    int confirmed_ = 0;
    int gone_ = 0;
    NetworkLookout lookout_{
        home_,
        {.onConnected = [this](bool is) { told_.emplace_back(is ? "connected" : "alone"); },
         .onNetwork = [this] { told_.emplace_back("network"); },
         .onPhone = [this](const PeerKey& phone) { told_.emplace_back(phone == phone_ ? "phone" : "somebody"); },
         .onConfirmed = [this](const PeerKey&) { ++confirmed_; },
         .onPhoneGone = [this](const PeerKey&) { ++gone_; }}};
};

TEST_F(NetworkLookoutTest, TellsOfAnotherNetworkTwoSecondsAfterTheFirstChange) {
    start();
    EXPECT_THAT(told_, IsEmpty());
    join(world_, {10, 1, 4, 7}, "10.1.4.1");
    world_.networkNews.tell();
    pass(1s);
    world_.networkNews.tell(); // moving is many changes
    pass(900ms);
    EXPECT_THAT(told_, IsEmpty());
    pass(100ms);
    EXPECT_THAT(told_, ElementsAre("network"));
    pass(1h);
    EXPECT_THAT(told_, ElementsAre("network"));
}

TEST_F(NetworkLookoutTest, TellsNothingIfNothingIsDifferent) {
    start();
    for (int i = 0; i < 20; ++i) { // the system renews its address, and says so
        tell();
    }
    EXPECT_THAT(told_, IsEmpty());
    world_.interfaces.addresses.push_back(FakeNetworkInterfaces::ipv4("docker0", {172, 17, 0, 1}));
    tell();
    EXPECT_THAT(told_, IsEmpty()) << "containers are no other network";
}

TEST_F(NetworkLookoutTest, TellsOfAnotherNetworkWithTheSameAddressesByItsRouter) {
    world_.neighbours.put(neighbour("192.168.7.1", NeighbourState::reachable, otherMac));
    start();
    world_.neighbours.put(neighbour("192.168.7.1", NeighbourState::incomplete));
    tell();
    EXPECT_THAT(told_, IsEmpty()) << "nobody knows yet";
    world_.neighbours.put(neighbour("192.168.7.1", NeighbourState::reachable, otherMac));
    tell();
    EXPECT_THAT(told_, IsEmpty());
    world_.neighbours.put(neighbour("192.168.7.1", NeighbourState::reachable, *MacAddress::parse("3e:5a:b4:01:02:05")));
    tell();
    EXPECT_THAT(told_, ElementsAre("network"));
}

TEST_F(NetworkLookoutTest, TellsOfANewNetworkOnceAMinute) {
    start();
    join(world_, {10, 1, 4, 7}, "10.1.4.1");
    tell();
    ASSERT_THAT(told_, ElementsAre("network"));
    for (std::uint8_t i = 1; i <= 20; ++i) { // 40 seconds
        join(world_, {10, 2, i, 7}, "10.2.4.1");
        tell();
    }
    EXPECT_THAT(told_, ElementsAre("network"));
    pass(20s);
    EXPECT_THAT(told_, ElementsAre("network", "network"));
    pass(1h);
    EXPECT_EQ(told_.size(), 2U);
}

TEST_F(NetworkLookoutTest, TellsThatThereIsNoNetworkAndThatThereIsOneAgainWheneverThatChanges) {
    start();
    for (int i = 0; i < 3; ++i) {
        leave();
        tell();
        join(world_, {192, 168, 7, 10}, "192.168.7.1");
        tell();
    }
    EXPECT_THAT(told_, ElementsAre("alone", "connected", "network", "alone", "connected", "alone", "connected"));
    pass(60s);
    EXPECT_EQ(told_.back(), "network") << "once a minute";
}

TEST_F(NetworkLookoutTest, TellsOfTheNetworkInWhichTheComputerHasWokenUpAlsoIfItIsTheSame) {
    start();
    join(world_, {10, 1, 4, 7}, "10.1.4.1");
    tell();
    ASSERT_THAT(told_, ElementsAre("network"));
    world_.sleepNews.wake();
    pass(NetworkLookout::settleTime);
    EXPECT_THAT(told_, ElementsAre("network", "network")) << "sooner than in a minute";
    pass(1h);
    EXPECT_EQ(told_.size(), 2U) << "once";
    leave();
    world_.sleepNews.wake();
    pass(NetworkLookout::settleTime);
    EXPECT_EQ(told_.back(), "alone");
    join(world_, {10, 1, 4, 7}, "10.1.4.1"); // Wi-Fi takes a while
    tell();
    EXPECT_THAT(told_, ElementsAre("network", "network", "alone", "connected", "network"));
}

TEST_F(NetworkLookoutTest, TellsAtTheStartThatThereIsNoNetwork) {
    leave();
    platform::InterfaceAddress loopback = FakeNetworkInterfaces::ipv4("lo", {127, 0, 0, 1});
    loopback.isLoopback = true;
    platform::InterfaceAddress unplugged = FakeNetworkInterfaces::ipv4("enp3s0", {192, 168, 7, 11});
    unplugged.isRunning = false;
    world_.interfaces.addresses = {loopback, unplugged, FakeNetworkInterfaces::ipv4("docker0", {172, 17, 0, 1})};
    start();
    EXPECT_THAT(told_, ElementsAre("alone"));
}

TEST_F(NetworkLookoutTest, TakesACableWithoutAnyServerForANetwork) {
    leave();
    world_.interfaces.addresses = {FakeNetworkInterfaces::ipv4("enp3s0", {169, 254, 3, 7})};
    start();
    EXPECT_THAT(told_, IsEmpty());
}

TEST_F(NetworkLookoutTest, TellsOfAPhoneThatComesAndNotOfOneThatStays) {
    start();
    put(neighbour("192.168.7.57", NeighbourState::stale, otherMac));
    EXPECT_THAT(told_, IsEmpty()) << "somebody else";
    put(neighbour("192.168.7.30", NeighbourState::stale, phoneMac));
    EXPECT_THAT(told_, ElementsAre("phone"));
    put(neighbour("192.168.7.30", NeighbourState::delay, phoneMac));
    put(neighbour("192.168.7.30", NeighbourState::reachable, phoneMac));
    EXPECT_EQ(told_.size(), 1U);
    put(neighbour("192.168.7.30", NeighbourState::failed));
    EXPECT_EQ(told_.size(), 1U);
    put(neighbour("192.168.7.30", NeighbourState::reachable, phoneMac));
    EXPECT_EQ(told_.size(), 2U);
    world_.neighbours.remove(neighbour("192.168.7.30", NeighbourState::reachable, phoneMac));
    put(neighbour("192.168.7.58", NeighbourState::reachable, phoneMac));
    EXPECT_EQ(told_.size(), 3U) << "it has got another address";
    EXPECT_EQ(confirmed_, 3);
    EXPECT_EQ(gone_, 2);
}

TEST_F(NetworkLookoutTest, TellsOfAPhoneThatTakesTheAddressOfAnotherDevice) {
    start();
    put(neighbour("192.168.7.57", NeighbourState::reachable, otherMac));
    put(neighbour("192.168.7.57", NeighbourState::reachable, phoneMac));
    EXPECT_THAT(told_, ElementsAre("phone"));
    put(neighbour("192.168.7.57", NeighbourState::reachable, otherMac));
    EXPECT_EQ(gone_, 1);
    put(neighbour("192.168.7.57", NeighbourState::reachable, phoneMac));
    EXPECT_THAT(told_, ElementsAre("phone", "phone"));
}

TEST_F(NetworkLookoutTest, KnowsAPhoneThatIsMetWhileItsEntryIsThere) {
    start();
    put(neighbour("192.168.7.57", NeighbourState::reachable, otherMac));
    EXPECT_EQ(confirmed_, 0);
    AddressMemory(world_.files, world_.clock, world_.log, home_.dataDirectory())
        .reached(phone_, {.host = HostAddress::parse("192.168.7.57", "wlan0").value(), .mac = otherMac, .network = {}});
    put(neighbour("192.168.7.57", NeighbourState::stale, otherMac));
    put(neighbour("192.168.7.57", NeighbourState::reachable, otherMac));
    EXPECT_EQ(confirmed_, 1);
    EXPECT_THAT(told_, IsEmpty()) << "it has not come just now";
    world_.neighbours.replaceAll({});
    pass(0s);
    EXPECT_EQ(gone_, 1);
}

TEST_F(NetworkLookoutTest, TellsNothingOfThoseWhoWereThereBefore) {
    world_.neighbours.put(neighbour("192.168.7.30", NeighbourState::stale, phoneMac));
    start();
    put(neighbour("192.168.7.30", NeighbourState::reachable, phoneMac));
    EXPECT_THAT(told_, IsEmpty());
    world_.neighbours.replaceAll({neighbour("192.168.7.30", NeighbourState::reachable, phoneMac),
                                  neighbour("192.168.7.58", NeighbourState::stale, phoneMac)});
    pass(0s);
    EXPECT_THAT(told_, ElementsAre("phone")) << "what came while events were lost";
}

TEST_F(NetworkLookoutTest, HearsNothingWhereNothingCanBeWatchedAndNothingOnceItIsStopped) {
    world_.networkNews.watchErrno = EMFILE;
    world_.neighbours.watchErrno = EMFILE;
    start();
    tell();
    EXPECT_THAT(told_, IsEmpty());
    EXPECT_EQ(world_.log.messages().size(), 2U);
    lookout_.stop();

    world_.networkNews.watchErrno.reset();
    world_.neighbours.watchErrno.reset();
    NetworkLookout other(home_, {.onConnected = [](bool) { ADD_FAILURE(); },
                                 .onNetwork = [] { ADD_FAILURE(); },
                                 .onPhone = [](const PeerKey&) { ADD_FAILURE(); },
                                 .onConfirmed = [](const PeerKey&) { ADD_FAILURE(); },
                                 .onPhoneGone = [](const PeerKey&) { ADD_FAILURE(); }});
    other.start();
    leave();
    world_.networkNews.tell();
    pass(1s);
    other.stop();
    pass(10s);
    EXPECT_EQ(world_.networkNews.watchCount(), 0U);
    EXPECT_EQ(world_.sleepNews.watchCount(), 0U);
    EXPECT_EQ(world_.neighbours.watchCount(), 0U);
}

} // namespace
} // namespace orlinth::host
