#include "OrlinthCore/Pairing/PairCode.h"

#include <gmock/gmock.h>

#include <array>
#include <cstdlib>

namespace orlinth {
namespace {

using testing::MatchesRegex;

// Computed with: printf '%s' "orlinth-pair:CODE:KEY" | sha256sum | cut -c 1-16
TEST(PairCode, HashesCodeAndKey) {
    EXPECT_EQ(PairCode::hash("0000", "AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA="), "e9b25f51be646f65");
    EXPECT_EQ(PairCode::hash("4711", "2IvhjdeTAr0xOCAxF3ZKGiqbBBSQTWQEE2UArz1XWkA="), "a48305257afbc96b");
    EXPECT_EQ(PairCode::hash("9999", "2IvhjdeTAr0xOCAxF3ZKGiqbBBSQTWQEE2UArz1XWkA="), "9e0837de2f4edfdd");
    EXPECT_EQ(PairCode::hash("", ""), "a8706c9e6f154c6b");
}

TEST(PairCode, HasTheServiceTypeOfPairMode) {
    EXPECT_STREQ(PairCode::serviceType, "_orlinth-pair._tcp.");
}

TEST(PairCode, IsFourDigits) {
    for (int draw = 0; draw < 2000; ++draw) {
        ASSERT_THAT(PairCode::generate(), MatchesRegex("[0-9][0-9][0-9][0-9]"));
    }
}

/// Chi squared of 200,000 codes in 100 classes; a fair generator exceeds the bound once in about 10^9 runs.
TEST(PairCode, IsAsLikelyToBeAnyNumber) {
    constexpr int draws = 200'000;
    constexpr std::size_t classes = 100;
    constexpr double bound = 210; // for 99 degrees of freedom
    std::array<int, classes> byFirstTwo{};
    std::array<int, classes> byLastTwo{};
    for (int draw = 0; draw < draws; ++draw) {
        const int code = std::atoi(PairCode::generate().c_str());
        ++byFirstTwo.at(static_cast<std::size_t>(code / 100));
        ++byLastTwo.at(static_cast<std::size_t>(code % 100));
    }
    const double expected = static_cast<double>(draws) / classes;
    for (const auto& counts : {byFirstTwo, byLastTwo}) {
        double chiSquared = 0;
        for (const int count : counts) {
            chiSquared += (count - expected) * (count - expected) / expected;
        }
        EXPECT_LT(chiSquared, bound);
    }
}

} // namespace
} // namespace orlinth
