#include "base/Hex.h"

#include <gtest/gtest.h>

namespace orlinth {
namespace {

TEST(Hex, EncodesInLowerCase) {
    const Bytes bytes{std::byte{0x00}, std::byte{0x0f}, std::byte{0xA0}, std::byte{0xff}};
    EXPECT_EQ(hexEncode(bytes), "000fa0ff");
    EXPECT_EQ(hexEncode({}), "");
}

TEST(Hex, DecodesEitherCase) {
    const Bytes bytes{std::byte{0xde}, std::byte{0xad}, std::byte{0xbe}, std::byte{0xef}};
    EXPECT_EQ(hexDecode("deadbeef"), bytes);
    EXPECT_EQ(hexDecode("DEADbeEF"), bytes);
    EXPECT_EQ(hexDecode(""), Bytes{});
}

TEST(Hex, RoundTripsEveryByte) {
    for (unsigned value = 0; value < 256; ++value) {
        const Bytes bytes{static_cast<std::byte>(value)};
        EXPECT_EQ(hexDecode(hexEncode(bytes)), bytes);
    }
}

TEST(Hex, RefusesWhatIsNotPairsOfDigits) {
    for (const char* text : {"a", "abc", "0g", "g0", " 1", "1 ", "-1", "+1", "0x", "0x11", "\n0", "a-", "\xc3\xa4"}) {
        EXPECT_EQ(hexDecode(text), std::nullopt) << text;
    }
    EXPECT_EQ(hexDecode(std::string_view("a\0", 2)), std::nullopt);
}

} // namespace
} // namespace orlinth
