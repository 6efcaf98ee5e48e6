#include "base/Hex.h"

#include <gtest/gtest.h>

namespace orlinth {
namespace {

TEST(Hex, EncodesInLowerCase) {
    const Bytes bytes{std::byte{0x00}, std::byte{0x0f}, std::byte{0xA0}, std::byte{0xff}};
    EXPECT_EQ(hexEncode(bytes), "000fa0ff");
    EXPECT_EQ(hexEncode({}), "");
}

TEST(Hex, EncodesInUpperCaseWhereThatIsWanted) {
    const Bytes bytes{std::byte{0x00}, std::byte{0x0f}, std::byte{0xA0}, std::byte{0xff}};
    EXPECT_EQ(hexEncode(bytes, HexCase::upper), "000FA0FF");
}

TEST(Hex, WritesAByteWithoutALeadingZero) {
    EXPECT_EQ(shortHex(std::byte{0x00}), "0");
    EXPECT_EQ(shortHex(std::byte{0x0a}), "a");
    EXPECT_EQ(shortHex(std::byte{0x10}), "10");
    EXPECT_EQ(shortHex(std::byte{0xff}), "ff");
}

TEST(Hex, KnowsTheValueOfEveryDigitAndOfNothingElse) {
    const std::string_view digits = "0123456789abcdefABCDEF";
    for (int code = 0; code < 256; ++code) {
        const char character = static_cast<char>(code);
        const std::size_t place = digits.find(character);
        const std::optional<unsigned> expected =
            place == std::string_view::npos ? std::nullopt
                                            : std::optional(static_cast<unsigned>(place < 16 ? place : place - 6));
        EXPECT_EQ(hexDigit(character), expected) << code;
    }
}

TEST(Hex, WritesAByteForAnUri) {
    std::string text = "a";
    appendPercentEncoded(text, 0xaf, HexCase::upper);
    appendPercentEncoded(text, 0xaf, HexCase::lower);
    appendPercentEncoded(text, 0, HexCase::lower);
    EXPECT_EQ(text, "a%AF%af%00");
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
