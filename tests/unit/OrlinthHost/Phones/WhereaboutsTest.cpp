#include "OrlinthHost/Phones/Whereabouts.h"

#include "fakes/HomeNetwork.h"

#include <gmock/gmock.h>

namespace orlinth::host {
namespace {

using fakes::FakeNetworkInterfaces;
using fakes::MemoryNeighbours;
using platform::Ipv4Address;
using platform::NeighbourState;
using testing::ElementsAre;
using testing::IsEmpty;

/// At home in 192.168.7.0/24 by wlan0, behind a router that has been spoken to.
class WhereaboutsTest : public testing::Test {
protected:
    WhereaboutsTest() {
        joinHome(world);
        world.neighbours.put(neighbour("192.168.7.30", NeighbourState::stale, phoneMac));
        world.routes.putOnLink(ip("192.168.7.30"));
        world.routes.putVia(ip("10.1.4.30"), ip("192.168.7.1"));
        world.routes.putOwn(ip("192.168.7.10"));
        world.routes.putOnLink(ip("fe80::30%wlan0"));
    }

    [[nodiscard]] Whereabouts look() const { return Whereabouts::look(world.system); }
    void add(platform::InterfaceAddress entry) { world.interfaces.addresses.push_back(std::move(entry)); }
    [[nodiscard]] InterfaceKind kindOf(const char* interface) const { return look().kindOf(interface); }

    fakes::World world;
};

TEST_F(WhereaboutsTest, AreAnOwnNetworkWithItsRouter) {
    const std::vector<OwnNetwork> networks = look().networks();
    ASSERT_EQ(networks.size(), 1u);
    EXPECT_EQ(networks[0].interface, "wlan0");
    EXPECT_EQ(networks[0].address, (Ipv4Address{192, 168, 7, 10}));
    EXPECT_EQ(networks[0].prefixBits, 24);
    EXPECT_EQ(networks[0].kind, InterfaceKind::real);
    EXPECT_TRUE(networks[0].isWireless);
    EXPECT_EQ(networks[0].gateway, ip("192.168.7.1"));
    EXPECT_EQ(networks[0].gatewayMac, routerMac);
    EXPECT_EQ(networks[0].id, homeNetwork);
}

TEST_F(WhereaboutsTest, HaveNoIdentityWithoutTheRoutersHardwareAddress) {
    world.neighbours.put(neighbour("192.168.7.1", NeighbourState::failed, routerMac));
    EXPECT_EQ(look().networks().front().id, std::nullopt);
    world.neighbours.put(neighbour("192.168.7.1", NeighbourState::incomplete));
    EXPECT_EQ(look().networks().front().id, std::nullopt);
    EXPECT_EQ(look().networks().front().gateway, ip("192.168.7.1"));
    world.routes.gateways.clear();
    EXPECT_EQ(look().networks().front().gateway, std::nullopt);
}

TEST_F(WhereaboutsTest, DoNotTakeTheRouterOfAnotherInterfaceForTheirOwn) {
    world.neighbours.replaceAll({neighbour("192.168.7.1", NeighbourState::reachable, routerMac, "eth0")});
    EXPECT_EQ(look().networks().front().id, std::nullopt);
}

TEST_F(WhereaboutsTest, LeaveOutWhatIsNoNetworkOfOthers) {
    world.interfaces.addresses = {
        FakeNetworkInterfaces::ipv4("lo", {127, 0, 0, 1}), FakeNetworkInterfaces::ipv4("eth0", {169, 254, 3, 4}),
        FakeNetworkInterfaces::ipv4("eth1", {192, 168, 8, 1}), FakeNetworkInterfaces::ipv4("eth2", {192, 168, 9, 1}),
        FakeNetworkInterfaces::hardware("eth3", Bytes(6))};
    world.interfaces.addresses[0].isLoopback = true;
    world.interfaces.addresses[2].isUp = false;
    world.interfaces.addresses[3].isRunning = false;
    EXPECT_THAT(look().networks(), IsEmpty());
}

TEST_F(WhereaboutsTest, KnowTunnelsAndContainersByTheirInterfaces) {
    add(FakeNetworkInterfaces::ipv4("wg0", {10, 8, 0, 2}));
    world.interfaces.addresses.back().isPointToPoint = true;
    add(FakeNetworkInterfaces::ipv4("work", {10, 9, 0, 2}));
    world.interfaces.addresses.back().isTunDevice = true;
    add(FakeNetworkInterfaces::ipv4("tun0", {10, 10, 0, 2}));
    for (const char* name : {"docker0", "br-3f2a", "virbr0", "veth12ab", "lxcbr0", "lxdbr0", "podman1"}) {
        add(FakeNetworkInterfaces::ipv4(name, {172, 17, 0, 1}));
        EXPECT_EQ(kindOf(name), InterfaceKind::containerBridge) << name;
    }
    EXPECT_EQ(kindOf("wg0"), InterfaceKind::tunnel);
    EXPECT_EQ(kindOf("work"), InterfaceKind::tunnel);
    EXPECT_EQ(kindOf("tun0"), InterfaceKind::tunnel);
    EXPECT_EQ(kindOf("wlan0"), InterfaceKind::real);
    EXPECT_EQ(kindOf("br0"), InterfaceKind::real) << "a bridge of the person's own, mostly to the cable";
    EXPECT_EQ(look().networks()[1].kind, InterfaceKind::tunnel);
}

TEST_F(WhereaboutsTest, TellTheNetworkOfAHostOnTheLink) {
    EXPECT_EQ(look().networkOf(host("192.168.7.30")), homeNetwork);
    EXPECT_EQ(look().networkOf(host("fe80::30%wlan0")), homeNetwork);
    EXPECT_EQ(look().networkOf(host("10.1.4.30")), std::nullopt) << "behind the router";
    EXPECT_EQ(look().networkOf(host("192.168.7.10")), std::nullopt) << "this computer itself";
    EXPECT_EQ(look().networkOf(host("203.0.113.9")), std::nullopt) << "no route";
    EXPECT_EQ(look().networkOf(host("fe80::30%eth9")), std::nullopt) << "no such interface";
}

TEST_F(WhereaboutsTest, TakeTheSmallestNetworkThatHasTheHost) {
    add(FakeNetworkInterfaces::ipv4("wlan0", {192, 168, 7, 20}, Ipv4Address{255, 255, 255, 192}));
    EXPECT_EQ(look().networkOf(host("192.168.7.30")), NetworkId::of({192, 168, 7, 0}, 26, routerMac));
}

TEST_F(WhereaboutsTest, AreNotOnTheLinkOfATunnel) {
    add(FakeNetworkInterfaces::ipv4("tun0", {10, 8, 0, 2}));
    world.routes.putOnLink(ip("192.168.7.30"), "tun0");
    EXPECT_FALSE(look().isOnLink(host("192.168.7.30")));
    EXPECT_EQ(look().networkOf(host("192.168.7.30")), std::nullopt);
    EXPECT_EQ(look().meetingAt(host("192.168.7.30")).mac, std::nullopt);
}

TEST_F(WhereaboutsTest, AreSurroundingsForTheMemory) {
    const Whereabouts here = look();
    const Surroundings surroundings = here.surroundings();
    EXPECT_THAT(surroundings.networks, ElementsAre(homeNetwork));
    EXPECT_TRUE(surroundings.isOnLink(host("192.168.7.30")));
    EXPECT_FALSE(surroundings.isOnLink(host("10.1.4.30")));
}

TEST_F(WhereaboutsTest, DescribeAMeeting) {
    const Meeting meeting = look().meetingAt(host("192.168.7.30"));
    EXPECT_EQ(meeting.host.literal(), "192.168.7.30");
    EXPECT_EQ(meeting.host.interface(), "wlan0");
    EXPECT_EQ(meeting.mac, phoneMac);
    EXPECT_EQ(meeting.network, homeNetwork);
}

TEST_F(WhereaboutsTest, DescribeAMeetingBehindARouterWithoutTheRoutersHardwareAddress) {
    world.neighbours.put(neighbour("10.1.4.30", NeighbourState::stale, routerMac));
    const Meeting meeting = look().meetingAt(host("10.1.4.30"));
    EXPECT_EQ(meeting.host, host("10.1.4.30"));
    EXPECT_EQ(meeting.mac, std::nullopt);
    EXPECT_EQ(meeting.network, std::nullopt);
}

TEST_F(WhereaboutsTest, LearnNoHardwareAddressFromAnEntryThatIsNoGood) {
    for (const NeighbourState state : {NeighbourState::incomplete, NeighbourState::failed, NeighbourState::noArp}) {
        world.neighbours.put(MemoryNeighbours::entry(ip("192.168.7.30"), state, bytesOf(phoneMac)));
        EXPECT_EQ(look().meetingAt(host("192.168.7.30")).mac, std::nullopt);
    }
    world.neighbours.put(MemoryNeighbours::entry(ip("192.168.7.30"), NeighbourState::stale, Bytes(20)));
    EXPECT_EQ(look().meetingAt(host("192.168.7.30")).mac, std::nullopt);
}

TEST_F(WhereaboutsTest, AreUnknownWithoutAnAnswerOfTheSystem) {
    world.neighbours.listErrno = EPERM;
    EXPECT_EQ(look().networks().front().id, std::nullopt);
    world.routes.errorNumber = EPERM;
    EXPECT_EQ(look().networks().front().gateway, std::nullopt);
    EXPECT_FALSE(look().isOnLink(host("192.168.7.30")));
    EXPECT_EQ(look().meetingAt(host("192.168.7.30")).host, host("192.168.7.30"));
    world.interfaces.listErrno = ENOMEM;
    EXPECT_THAT(look().networks(), IsEmpty());
}

} // namespace
} // namespace orlinth::host
