#include "base/Base64.h"

#include <gtest/gtest.h>

namespace orlinth {
namespace {

struct Pair {
    const char* plain;
    const char* encoded;
};

// RFC 4648 §10
constexpr Pair published[] = {
    {"", ""},
    {"f", "Zg=="},
    {"fo", "Zm8="},
    {"foo", "Zm9v"},
    {"foob", "Zm9vYg=="},
    {"fooba", "Zm9vYmE="},
    {"foobar", "Zm9vYmFy"},
};

TEST(Base64, EncodesThePublishedVectors) {
    for (const Pair& pair : published) {
        EXPECT_EQ(base64Encode(asBytes(pair.plain)), pair.encoded);
    }
}

TEST(Base64, DecodesThePublishedVectors) {
    for (const Pair& pair : published) {
        EXPECT_EQ(base64Decode(pair.encoded), toBytes(pair.plain)) << pair.encoded;
    }
}

TEST(Base64, UsesTheWholeStandardAlphabet) {
    const Bytes bytes{std::byte{0xfb}, std::byte{0xff}, std::byte{0xbf}};
    EXPECT_EQ(base64Encode(bytes), "+/+/");
    EXPECT_EQ(base64Decode("+/+/"), bytes);
}

TEST(Base64, RoundTripsEveryByteAtEveryPlaceAndLength) {
    for (std::size_t length = 0; length < 8; ++length) {
        for (unsigned value = 0; value < 256; ++value) {
            Bytes bytes(length, static_cast<std::byte>(value));
            if (length > 0) {
                bytes.back() = static_cast<std::byte>(255 - value);
            }
            const std::string text = base64Encode(bytes);
            EXPECT_EQ(text.size(), (length + 2) / 3 * 4);
            EXPECT_EQ(base64Decode(text), bytes) << text;
        }
    }
}

TEST(Base64, GivesAKeyOfThirtyTwoBytesFortyFourCharacters) {
    EXPECT_EQ(base64Encode(Bytes(32)), std::string(43, 'A') + "=");
}

TEST(Base64, RefusesWhatIsNotExactlyOneStandardText) {
    for (const char* text :
         {"Z",        "Zg",     "Zg=",   "Zg===", "=",     "==",       "===",  "====",    "Z===",   "Zg=a", "Z=g=",
          "Zg==Zg==", "Zm9v\n", "Zm 9v", " Zm9v", "Zm9v ", "Zm9v====", "-_-_", "Zm9\x80", "Zg==\n", "Zm9*"}) {
        EXPECT_EQ(base64Decode(text), std::nullopt) << text;
    }
    EXPECT_EQ(base64Decode(std::string_view("Zm9\0", 4)), std::nullopt);
}

TEST(Base64, RefusesBitsBehindTheEnd) {
    EXPECT_EQ(base64Decode("Zh=="), std::nullopt); // "Zg==" with a stray bit
    EXPECT_EQ(base64Decode("Zm9="), std::nullopt); // "Zm8=" likewise
    EXPECT_TRUE(base64Decode("Zg==").has_value());
}

} // namespace
} // namespace orlinth
