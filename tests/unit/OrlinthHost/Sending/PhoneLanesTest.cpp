#include "OrlinthHost/Sending/PhoneLanes.h"

#include <gtest/gtest.h>

namespace orlinth::host {
namespace {

TEST(PhoneLanes, AreOneMoreForEachFileThatThePhoneHasTaken) {
    PhoneLanes lanes;
    for (std::size_t expected = 1; expected <= PhoneLanes::most; ++expected) {
        EXPECT_EQ(lanes.allowed(), expected);
        lanes.addTaken();
    }
    lanes.addTaken();
    EXPECT_EQ(lanes.allowed(), static_cast<std::size_t>(PhoneLanes::most));
}

TEST(PhoneLanes, AreOneAgainAfterOneTooManyAndHaveToBeEarnedTwice) {
    PhoneLanes lanes;
    lanes.addTaken();
    lanes.addTaken();
    lanes.fallBack();
    for (int taken = 0; taken <= PhoneLanes::most; ++taken) {
        EXPECT_EQ(lanes.allowed(), 1U) << taken;
        lanes.addTaken();
    }
    EXPECT_EQ(lanes.allowed(), 2U);
}

TEST(PhoneLanes, OpenOneMoreOnlyWhileLittleIsUnderWayAndEachPhoneGetsOne) {
    PhoneLanes lanes;
    lanes.addTaken();
    EXPECT_TRUE(lanes.mayOpen({.ofPhone = 1, .bytesOfPhone = PhoneLanes::enoughBytes - 1, .ofAll = 1}));
    EXPECT_FALSE(lanes.mayOpen({.ofPhone = 1, .bytesOfPhone = PhoneLanes::enoughBytes, .ofAll = 1}));
    EXPECT_FALSE(lanes.mayOpen({.ofPhone = 2, .bytesOfPhone = 0, .ofAll = 2}));
    EXPECT_FALSE(lanes.mayOpen({.ofPhone = 1, .bytesOfPhone = 0, .ofAll = PhoneLanes::mostOfAll}));
    EXPECT_TRUE(lanes.mayOpen({.ofPhone = 0, .bytesOfPhone = PhoneLanes::enoughBytes, .ofAll = 1000}));
}

} // namespace
} // namespace orlinth::host
