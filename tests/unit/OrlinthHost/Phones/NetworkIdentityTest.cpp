#include "OrlinthHost/Phones/NetworkIdentity.h"

#include <gtest/gtest.h>

namespace orlinth::host {
namespace {

const MacAddress router = *MacAddress::parse("3e:5a:b4:01:02:03");

TEST(MacAddress, IsReadInAnyLetterCaseAndWrittenInOne) {
    EXPECT_EQ(MacAddress::parse("3E:5a:B4:01:02:FF")->text(), "3e:5a:b4:01:02:ff");
    EXPECT_EQ(MacAddress::parse(router.text()), router);
    EXPECT_EQ(MacAddress::fromRaw(router.raw()), router);
}

TEST(MacAddress, IsNothingElse) {
    for (const char* text : {"", "3e:5a:b4:01:02", "3e:5a:b4:01:02:03:", "3e:5a:b4:01:02:0g", "3e-5a-b4-01-02-03",
                             " 3e:5a:b4:01:02:3", "3e5ab4010203", "3e:5a:b4:01:02:03:04", "3e:5a:b4:01:02 03"}) {
        EXPECT_EQ(MacAddress::parse(text), std::nullopt) << text;
    }
}

TEST(MacAddress, IsOneDevices) {
    for (const char* text :
         {"00:00:00:00:00:00", "02:00:00:00:00:00", "ff:ff:ff:ff:ff:ff", "01:00:5e:00:00:fb", "33:33:00:00:00:01"}) {
        EXPECT_EQ(MacAddress::parse(text), std::nullopt) << text;
    }
    EXPECT_TRUE(MacAddress::parse("02:00:00:00:00:01")) << "a phone's own for this network";
}

TEST(NetworkId, IsOfTheSubnetWhateverTheHost) {
    const NetworkId home = NetworkId::of({192, 168, 7, 10}, 24, router);
    EXPECT_EQ(home, NetworkId::of({192, 168, 7, 99}, 24, router));
    EXPECT_NE(home, NetworkId::of({192, 168, 8, 10}, 24, router));
    EXPECT_NE(home, NetworkId::of({192, 168, 7, 10}, 25, router));
    EXPECT_NE(home, NetworkId::of({192, 168, 7, 10}, 24, *MacAddress::parse("3e:5a:b4:01:02:04")));
    EXPECT_EQ(NetworkId::of({10, 1, 63, 1}, 18, router), NetworkId::of({10, 1, 0, 0}, 18, router));
    EXPECT_NE(NetworkId::of({10, 1, 64, 1}, 18, router), NetworkId::of({10, 1, 0, 0}, 18, router));
    EXPECT_EQ(NetworkId::of({10, 1, 2, 3}, 0, router), NetworkId::of({}, 0, router));
}

TEST(NetworkId, IsTheBeginningOfTheHashThatIsDocumented) {
    // printf '192.168.7.0/24 3e:5a:b4:01:02:03' | sha256sum
    EXPECT_EQ(NetworkId::of({192, 168, 7, 10}, 24, router).text(), "e5dbf59addc5167a");
    EXPECT_EQ(NetworkId::parse("e5dbf59addc5167a"), NetworkId::of({192, 168, 7, 10}, 24, router));
}

TEST(NetworkId, IsNoOtherText) {
    for (const char* text : {"", "9f86d081884c7d6", "9f86d081884c7d655", "9F86D081884C7D65", "9f86d081884c7d6x"}) {
        EXPECT_EQ(NetworkId::parse(text), std::nullopt) << text;
    }
}

} // namespace
} // namespace orlinth::host
