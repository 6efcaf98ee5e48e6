#include "OrlinthHost/Reach/FinderPlan.h"

#include "fakes/HomeNetwork.h"

#include <gmock/gmock.h>

#include <algorithm>

namespace orlinth::host {
namespace {

using platform::IpAddress;
using platform::Ipv4Address;
using platform::NeighbourState;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

constexpr std::uint16_t port = 7000;

KnownAddress known(const std::string& literal, std::optional<NetworkId> network = homeNetwork,
                   std::optional<MacAddress> mac = {}) {
    return {.host = host(literal),
            .mac = mac,
            .network = std::move(network),
            .came = {},
            .reached = fromEpochMilliseconds(1),
            .failures = 0};
}

platform::Neighbour entry(const std::string& literal, const MacAddress& mac,
                          NeighbourState state = NeighbourState::stale, const std::string& interface = "wlan0") {
    return neighbour(literal, state, mac, interface);
}

OwnNetwork wifiAtHome() {
    return {.interface = "wlan0",
            .address = {192, 168, 7, 10},
            .prefixBits = 24,
            .kind = InterfaceKind::real,
            .isWireless = true,
            .gateway = IpAddress(Ipv4Address{192, 168, 7, 1}),
            .gatewayMac = routerMac,
            .id = homeNetwork};
}

/// A phone that was met at home, whose record says .30.
SoughtPhone phone() {
    SoughtPhone sought{.port = port, .recorded = host("192.168.7.30")};
    sought.met = {known("192.168.7.30")};
    return sought;
}

SoughtPhone stranger() {
    SoughtPhone sought = phone();
    sought.met.clear();
    return sought;
}

class FinderPlanTest : public testing::Test {
protected:
    [[nodiscard]] FinderPlan plan() const { return {find, networks, neighbours}; }
    [[nodiscard]] std::vector<std::string> nearby(const SoughtPhone& sought) const {
        std::vector<std::string> texts;
        for (const FinderTarget& target : plan().nearby(sought)) {
            EXPECT_EQ(target.port, port);
            texts.push_back(platform::textOf(target.address));
        }
        return texts;
    }
    [[nodiscard]] std::vector<Ipv4Address> swept(const SoughtPhone& sought) const {
        const auto sweep = plan().sweep(sought);
        return sweep ? sweep->addresses : std::vector<Ipv4Address>();
    }

    FindSetting find = FindSetting::known;
    std::vector<OwnNetwork> networks{wifiAtHome()};
    std::vector<platform::Neighbour> neighbours;
};

TEST(FindSetting, IsReadFromItsName) {
    EXPECT_EQ(findSettingFrom("known"), FindSetting::known);
    EXPECT_EQ(findSettingFrom("always"), FindSetting::always);
    EXPECT_EQ(findSettingFrom("never"), FindSetting::never);
    EXPECT_EQ(findSettingFrom("Never"), std::nullopt);
    EXPECT_EQ(findSettingFrom(""), std::nullopt);
}

// --- nearby ---

TEST_F(FinderPlanTest, BeginsWithRememberedAddressesThenThePhonesHardwareAddressThenOthers) {
    SoughtPhone sought = phone();
    sought.recordedMac = phoneMac;
    sought.candidates = {known("192.168.7.57"), known("fe80::57%wlan0")};
    neighbours = {entry("192.168.7.80", otherMac), entry("192.168.7.57", phoneMac), entry("192.168.7.58", phoneMac),
                  entry("fe80::58%wlan0", phoneMac)};
    EXPECT_THAT(nearby(sought),
                ElementsAre("192.168.7.57", "fe80::57%wlan0", "192.168.7.58", "fe80::58%wlan0", "192.168.7.80"));
}

TEST_F(FinderPlanTest, LeavesTheRecordedAddressToTheAttemptThere) {
    SoughtPhone sought = phone();
    sought.recordedMac = phoneMac;
    sought.candidates = {known("192.168.7.30")};
    neighbours = {entry("192.168.7.30", phoneMac)};
    EXPECT_THAT(nearby(sought), IsEmpty());
    EXPECT_THAT(swept(sought), Not(Contains(Ipv4Address{192, 168, 7, 30})));
}

TEST_F(FinderPlanTest, KnowsAHardwareAddressFromAnyMeeting) {
    SoughtPhone sought = phone();
    sought.met.push_back(known("10.1.4.30", std::nullopt, otherMac));
    neighbours = {entry("192.168.7.58", otherMac, NeighbourState::failed), entry("192.168.7.59", otherMac)};
    EXPECT_THAT(nearby(sought), ElementsAre("192.168.7.59"));
}

TEST_F(FinderPlanTest, AsksFourOfEachKindAndSixteenOthersAtMost) {
    SoughtPhone sought = phone();
    sought.recordedMac = phoneMac;
    for (int i = 100; i < 130; ++i) {
        sought.candidates.push_back(known("192.168.7." + std::to_string(i)));
        neighbours.push_back(entry("192.168.7." + std::to_string(i + 30), phoneMac));
        neighbours.push_back(entry("192.168.7." + std::to_string(i + 60), otherMac));
    }
    EXPECT_THAT(nearby(sought), SizeIs(4 + 4 + 16));
}

TEST_F(FinderPlanTest, AsksTheRouterOfANetworkInWhichThePhoneWasNotMet) {
    neighbours = {entry("192.168.7.1", routerMac), entry("192.168.7.80", otherMac)};
    EXPECT_THAT(nearby(stranger()), ElementsAre("192.168.7.1")) << "it may be the phone; the others are strangers";
    EXPECT_THAT(nearby(phone()), ElementsAre("192.168.7.80")) << "at home the router is the router";
    find = FindSetting::always;
    EXPECT_THAT(nearby(stranger()), ElementsAre("192.168.7.1", "192.168.7.80"));
}

TEST_F(FinderPlanTest, AsksNobodyBehindATunnelOrInAContainersNetwork) {
    find = FindSetting::always;
    networks.front().kind = InterfaceKind::tunnel;
    neighbours = {entry("192.168.7.80", otherMac), entry("192.168.7.81", phoneMac)};
    SoughtPhone sought = phone();
    sought.recordedMac = phoneMac;
    EXPECT_THAT(nearby(sought), IsEmpty());
    EXPECT_THAT(swept(sought), IsEmpty());
    networks.front().kind = InterfaceKind::containerBridge;
    EXPECT_THAT(nearby(sought), ElementsAre("192.168.7.81")) << "it is the phone's hardware address";
    EXPECT_THAT(swept(sought), IsEmpty());
}

TEST_F(FinderPlanTest, AsksNobodyIfItMayNot) {
    find = FindSetting::never;
    SoughtPhone sought = phone();
    sought.recordedMac = phoneMac;
    sought.candidates = {known("192.168.7.57")};
    neighbours = {entry("192.168.7.80", otherMac), entry("192.168.7.81", phoneMac)};
    EXPECT_THAT(nearby(sought), IsEmpty());
    EXPECT_EQ(plan().sweep(sought), std::nullopt);
}

// --- the sweep ---

TEST_F(FinderPlanTest, SweepsTheOthersOfANetworkTheNearestFirst) {
    const auto sweep = plan().sweep(phone());
    ASSERT_TRUE(sweep);
    EXPECT_EQ(sweep->interface, "wlan0");
    EXPECT_EQ(sweep->claim, homeNetwork);
    EXPECT_THAT(sweep->addresses, SizeIs(254 - 2)) << "without its own and the recorded one";
    EXPECT_EQ(sweep->addresses[0], (Ipv4Address{192, 168, 7, 31}));
    EXPECT_EQ(sweep->addresses[1], (Ipv4Address{192, 168, 7, 29}));
    EXPECT_THAT(sweep->addresses, Not(Contains(Ipv4Address{192, 168, 7, 10})));
    EXPECT_THAT(sweep->addresses, Contains(Ipv4Address{192, 168, 7, 254}));
    std::vector<Ipv4Address> sorted = sweep->addresses;
    std::ranges::sort(sorted);
    EXPECT_EQ(std::ranges::unique(sorted).begin(), sorted.end());
}

TEST_F(FinderPlanTest, SweepsNoNetworkInWhichThePhoneWasNotMetUnlessTheyAreToldSo) {
    EXPECT_EQ(plan().sweep(stranger()), std::nullopt);
    networks.front().id.reset();
    EXPECT_EQ(plan().sweep(phone()), std::nullopt) << "which network this is cannot be told";
    find = FindSetting::always;
    EXPECT_TRUE(plan().sweep(stranger()));
}

TEST_F(FinderPlanTest, TouchesOne24OfALargerNetwork) {
    networks.front().prefixBits = 16;
    networks.front().address = {192, 168, 200, 10};
    SoughtPhone sought = phone();
    const std::vector<Ipv4Address> addresses = swept(sought);
    EXPECT_THAT(addresses, SizeIs(253));
    for (const Ipv4Address& address : addresses) {
        EXPECT_EQ(address[2], 7);
    }
    sought.recorded = host("10.1.1.1"); // then around where it was met here
    sought.met = {known("192.168.9.40")};
    EXPECT_EQ(swept(sought).front(), (Ipv4Address{192, 168, 9, 40}));
    EXPECT_THAT(swept(sought), SizeIs(254));
}

TEST_F(FinderPlanTest, SweepsOnlyTheHostsOfASmallerNetwork) {
    networks.front().prefixBits = 29; // .8 to .15
    SoughtPhone sought = phone();
    sought.recorded = host("192.168.7.12");
    const std::vector<Ipv4Address> addresses = swept(sought);
    EXPECT_THAT(addresses, ElementsAre(Ipv4Address{192, 168, 7, 13}, Ipv4Address{192, 168, 7, 11},
                                       Ipv4Address{192, 168, 7, 14}, Ipv4Address{192, 168, 7, 9}));
    networks.front().prefixBits = 31;
    EXPECT_THAT(swept(sought), IsEmpty());
}

TEST_F(FinderPlanTest, SweepsPrivateNetworksOnly) {
    networks.front().address = {203, 0, 113, 10};
    find = FindSetting::always;
    EXPECT_THAT(swept(phone()), IsEmpty());
    for (const Ipv4Address& address :
         {Ipv4Address{10, 0, 0, 1}, Ipv4Address{172, 16, 0, 1}, Ipv4Address{172, 31, 255, 1}}) {
        networks.front().address = address;
        EXPECT_THAT(swept(phone()), Not(IsEmpty()));
    }
    networks.front().address = {172, 32, 0, 1};
    EXPECT_THAT(swept(phone()), IsEmpty());
}

TEST_F(FinderPlanTest, SweepsNothingWhileTheNeighbourTableIsCrowded) {
    for (int i = 0; i < 512; ++i) {
        neighbours.push_back(entry("10.2." + std::to_string(i / 250) + "." + std::to_string(i % 250), otherMac,
                                   NeighbourState::stale, "eth5"));
    }
    EXPECT_TRUE(plan().sweep(phone()));
    neighbours.push_back(entry("10.3.0.1", otherMac, NeighbourState::stale, "eth5"));
    EXPECT_EQ(plan().sweep(phone()), std::nullopt);
}

TEST_F(FinderPlanTest, IsNotMisledByALargeNeighbourTable) {
    SoughtPhone sought = phone();
    sought.recordedMac = phoneMac;
    for (int i = 0; i < 300; ++i) {
        neighbours.push_back(entry("192.168.7." + std::to_string(i % 254 + 1), otherMac,
                                   i % 3 == 0 ? NeighbourState::failed : NeighbourState::stale));
    }
    neighbours.push_back(entry("192.168.7.57", phoneMac));
    const std::vector<std::string> asked = nearby(sought);
    EXPECT_EQ(asked.front(), "192.168.7.57");
    EXPECT_THAT(asked, SizeIs(1 + 16));
    EXPECT_TRUE(plan().sweep(sought));
}

TEST_F(FinderPlanTest, SweepsTheNetworkOfTheRecordedAddressBeforeAnother) {
    OwnNetwork cable = wifiAtHome();
    cable.interface = "eth0";
    cable.address = {192, 168, 9, 10};
    networks.insert(networks.begin(), cable);
    find = FindSetting::always;
    EXPECT_EQ(plan().sweep(phone())->interface, "wlan0");
    SoughtPhone elsewhere = phone();
    elsewhere.recorded = host("10.1.1.1");
    EXPECT_EQ(plan().sweep(elsewhere)->interface, "eth0");
}

} // namespace
} // namespace orlinth::host
