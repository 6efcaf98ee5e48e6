#include "base/ConstantTime.h"

#include <gtest/gtest.h>

namespace orlinth {
namespace {

TEST(ConstantTimeEquals, HoldsForEqualBytes) {
    EXPECT_TRUE(constantTimeEquals(asBytes("same"), toBytes("same")));
}

TEST(ConstantTimeEquals, HoldsForTwoEmptyInputs) {
    EXPECT_TRUE(constantTimeEquals({}, {}));
}

TEST(ConstantTimeEquals, NoticesEverySingleFlippedBit) {
    const Bytes key(32, std::byte{0xA5});
    for (std::size_t bit = 0; bit < key.size() * 8; ++bit) {
        Bytes other = key;
        other[bit / 8] ^= std::byte{1} << (bit % 8);
        EXPECT_FALSE(constantTimeEquals(key, other)) << "bit " << bit;
        EXPECT_FALSE(constantTimeEquals(other, key)) << "bit " << bit;
    }
}

TEST(ConstantTimeEquals, DoesNotLetDifferencesCancelOut) {
    const Bytes zeros(32, std::byte{0});
    const Bytes ones(32, std::byte{0xFF}); // an even number of equal differences
    EXPECT_FALSE(constantTimeEquals(zeros, ones));
}

TEST(ConstantTimeEquals, FailsForDifferentLengths) {
    EXPECT_FALSE(constantTimeEquals(asBytes("abc"), asBytes("ab")));
    EXPECT_FALSE(constantTimeEquals(asBytes("ab"), asBytes("abc")));
    EXPECT_FALSE(constantTimeEquals({}, asBytes("a")));
}

} // namespace
} // namespace orlinth
