#include "OrlinthCore/Receiving/Strangers.h"

#include <gmock/gmock.h>

#include <set>

namespace orlinth {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class StrangersTest : public testing::Test {
protected:
    StrangersTest() { strangers.mostOfOneSource = 3; }
    std::vector<Strangers::Identity> come(Strangers::Identity identity, const std::string& source, Seconds at = 0s) {
        return strangers.add(identity, source, Strangers::Instant(at));
    }
    std::vector<Strangers::Identity> overdue(Seconds at) { return strangers.takeOverdue(Strangers::Instant(at)); }

    std::set<Strangers::Identity> greeted;
    Strangers strangers{[this](Strangers::Identity identity) { return greeted.contains(identity); }};
};

TEST_F(StrangersTest, OfOneSourceAreTooManyOnceTheyHaveHadTheirTime) {
    for (Strangers::Identity identity = 1; identity <= 5; ++identity) {
        EXPECT_THAT(come(identity, "a", 100ms * identity), IsEmpty()) << "a crowd gets its moment";
    }
    EXPECT_TRUE(strangers.isCrowded());
    EXPECT_THAT(overdue(1050ms), IsEmpty());
    EXPECT_THAT(overdue(1150ms), ElementsAre(1));
    EXPECT_THAT(overdue(5s), ElementsAre(2)) << "and no more than must go";
    EXPECT_FALSE(strangers.isCrowded());
    EXPECT_THAT(come(6, "a", 6s), ElementsAre(3)) << "whoever comes later throws out the oldest at once";
}

TEST_F(StrangersTest, WhoHasSaidNothingGoesBeforeWhoHas) {
    greeted = {1, 3};
    for (Strangers::Identity identity = 1; identity <= 4; ++identity) {
        static_cast<void>(come(identity, "a"));
    }
    EXPECT_THAT(overdue(2s), ElementsAre(2));
    EXPECT_THAT(come(5, "a", 2s), ElementsAre(4));
    greeted = {1, 3, 5};
    static_cast<void>(come(6, "a", 4s));
    EXPECT_THAT(overdue(4100ms), IsEmpty());
}

TEST_F(StrangersTest, OneSourceDoesNotCountForAnother) {
    for (Strangers::Identity identity = 1; identity <= 9; ++identity) {
        static_cast<void>(come(identity, std::string(1, static_cast<char>('a' + identity % 3))));
    }
    EXPECT_FALSE(strangers.isCrowded());
    EXPECT_THAT(overdue(5s), IsEmpty());
}

TEST_F(StrangersTest, TheSourceWithMostMakesRoomForOthers) {
    strangers.mostOfOneSource = limits::strangers;
    static_cast<void>(come(1, "quiet"));
    for (Strangers::Identity identity = 2; identity <= limits::strangers; ++identity) {
        EXPECT_THAT(come(identity, "flood"), IsEmpty());
    }
    EXPECT_THAT(come(1000, "phone"), ElementsAre(2));
    EXPECT_THAT(come(1001, "flood"), ElementsAre(3)) << "the flood throws out itself";
    greeted = {4};
    EXPECT_THAT(come(1002, "phone"), ElementsAre(5));
    EXPECT_EQ(strangers.count(), limits::strangers);
    strangers.remove(1);
    EXPECT_THAT(come(1003, "phone"), IsEmpty());
    strangers.remove(1); // again: nothing
    EXPECT_EQ(strangers.count(), limits::strangers);
}

TEST_F(StrangersTest, WhoHasJustComeGetsAChanceAmongOthersOfItsSourceThatHaveSpoken) {
    strangers.mostOfOneSource = limits::strangers;
    for (Strangers::Identity identity = 1; identity <= limits::strangers; ++identity) {
        greeted.insert(identity);
        static_cast<void>(come(identity, "flood"));
    }
    EXPECT_THAT(come(1000, "flood"), ElementsAre(1));
}

TEST_F(StrangersTest, OfManySourcesWithOneEachTheOldestGoes) {
    for (Strangers::Identity identity = 1; identity <= limits::strangers; ++identity) {
        static_cast<void>(come(identity, "z" + std::to_string(identity), 1s * identity));
    }
    EXPECT_THAT(come(1000, "a", 1000s), ElementsAre(1));
}

TEST_F(StrangersTest, NobodyCanBeTakenWhereNobodyIs) {
    EXPECT_EQ(strangers.takeOne(), std::nullopt);
    static_cast<void>(come(1, "a"));
    EXPECT_EQ(strangers.takeOne(), 1U);
    EXPECT_EQ(strangers.count(), 0U);
}

TEST(SourceOf, IsAnIpv4AddressOrTheNetworkOfAnIpv6Address) {
    EXPECT_EQ(sourceOf("192.168.1.7"), "192.168.1.7");
    EXPECT_EQ(sourceOf("::ffff:192.168.1.7"), "192.168.1.7");
    EXPECT_EQ(sourceOf("2001:db8:1:2::7"), sourceOf("2001:db8:1:2:ffff:1:2:3"));
    EXPECT_NE(sourceOf("2001:db8:1:2::7"), sourceOf("2001:db8:1:3::7"));
    EXPECT_NE(sourceOf("fe80::1%eth0"), sourceOf("fe80::1%eth1"));
    EXPECT_EQ(sourceOf("somewhere"), "somewhere");
}

} // namespace
} // namespace orlinth
