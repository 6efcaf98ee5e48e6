#include "platform/IpAddress.h"

#include "fakes/FakeNetworkInterfaces.h"

#include <gtest/gtest.h>

namespace orlinth::platform {
namespace {

using fakes::FakeNetworkInterfaces;

TEST(IpAddress, OfAnEndpointIsWithoutPortAndBrackets) {
    EXPECT_EQ(addressOfEndpoint("192.168.1.7:40112"), "192.168.1.7");
    EXPECT_EQ(addressOfEndpoint("[fe80::1%eth0]:40112"), "fe80::1%eth0");
    EXPECT_EQ(addressOfEndpoint("somewhere"), "somewhere");
}

TEST(IpAddress, IsWrittenAsItIsRead) {
    for (const char* literal : {"192.168.1.7", "0.0.0.0", "255.255.255.255", "::", "::1", "fe80::1%eth0",
                                "2001:db8:1:2:3:4:5:6", "2001:db8::9"}) {
        EXPECT_EQ(textOf(parseIpAddress(literal).value()), literal);
    }
    EXPECT_EQ(textOf(parseIpAddress("2001:DB8:0:0:0:0:0:9").value()), "2001:db8::9");
}

TEST(IpAddress, IsEqualToOneOfTheSameBytesAndZone) {
    const auto read = [](const char* literal) { return parseIpAddress(literal).value(); };
    EXPECT_EQ(read("fe80::1%eth0"), read("fe80:0::1%eth0"));
    EXPECT_NE(read("fe80::1%eth0"), read("fe80::1%eth1"));
    EXPECT_NE(read("::1"), read("0.0.0.1"));
}

TEST(IpAddress, OfOneLinkBeginsWithTenBits) {
    const auto isOfOneLink = [](const char* literal) {
        return isLinkLocal(std::get<Ipv6Address>(parseIpAddress(literal).value()));
    };
    EXPECT_TRUE(isOfOneLink("fe80::1"));
    EXPECT_TRUE(isOfOneLink("febf::1"));
    EXPECT_FALSE(isOfOneLink("fec0::1"));
    EXPECT_FALSE(isOfOneLink("fd80::1"));
    EXPECT_FALSE(isOfOneLink("::1"));
}

class Nearby : public testing::Test {
protected:
    Nearby() {
        interfaces.addresses = {FakeNetworkInterfaces::ipv4("eth0", {203, 0, 113, 5}, Ipv4Address{255, 255, 255, 0})};
        InterfaceAddress six = interfaces.addresses.front();
        six.address = InterfaceAddress::Ipv6{.address = {0x20, 0x01, 0x0D, 0xB8, 0, 1, 0, 2, 0, 0, 0, 0, 0, 0, 0, 5},
                                             .prefixBits = 60};
        interfaces.addresses.push_back(six);
    }
    [[nodiscard]] bool isNear(const std::string& address) const { return isNearby(address, interfaces); }
    FakeNetworkInterfaces interfaces;
};

TEST_F(Nearby, ArePrivateLinkLocalAndLoopbackAddresses) {
    for (const char* address :
         {"10.0.0.1", "10.255.255.255", "172.16.0.1", "172.31.255.255", "192.168.0.1", "169.254.1.1", "127.0.0.1",
          "127.9.9.9", "::1", "fe80::1%eth0", "febf::1", "fc00::1", "fdff::1", "::ffff:192.168.1.1"}) {
        EXPECT_TRUE(isNear(address)) << address;
    }
}

TEST_F(Nearby, AreThoseOfTheNetworksThatThisComputerIsIn) {
    for (const char* address : {"203.0.113.77", "::ffff:203.0.113.77", "2001:db8:1:2::9", "2001:db8:1:f::9"}) {
        EXPECT_TRUE(isNear(address)) << address;
    }
}

TEST_F(Nearby, IsNobodyElse) {
    for (const char* address :
         {"8.8.8.8", "172.15.0.1", "172.32.0.1", "192.167.0.1", "192.169.0.1", "11.0.0.1", "100.64.0.1", "203.0.114.1",
          "2001:db8:1:10::9", "2001:db9::1", "fec0::1", "::2", "::", "::ffff:8.8.8.8", "0.0.0.0", "somewhere", ""}) {
        EXPECT_FALSE(isNear(address)) << address;
    }
    interfaces.addresses[0].isPointToPoint = true;
    interfaces.addresses[1].isUp = false;
    EXPECT_FALSE(isNear("203.0.113.77"));
    EXPECT_FALSE(isNear("2001:db8:1:2::9"));
}

} // namespace
} // namespace orlinth::platform
