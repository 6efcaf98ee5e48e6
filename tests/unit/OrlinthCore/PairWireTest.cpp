#include "OrlinthCore/Pairing/PairWire.h"

#include "base/Hex.h"

#include <gtest/gtest.h>

#include <functional>

using namespace orlinth;

namespace {

using Case = PairWire::Error::Case;

PairWire::Error failureOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const PairWire::Error& error) {
        return error;
    }
    ADD_FAILURE() << "nothing was thrown";
    return PairWire::Error::frameTooShort();
}

std::size_t lengthOf(const char* hex) {
    return PairWire::parseLengthPrefix(hexDecode(hex).value());
}

TEST(PairWire, PutsTheLengthInFrontMostSignificantByteFirst) {
    EXPECT_EQ(hexEncode(PairWire::encodeFrame(asBytes("abc"))), "00000003616263");
    const Bytes frame = PairWire::encodeFrame(Bytes(0x1234, std::byte{7}));
    EXPECT_EQ(hexEncode(ByteView(frame).first(5)), "0000123407");
    EXPECT_EQ(frame.size(), 4u + 0x1234);
}

TEST(PairWire, EncodesAnEmptyPayload) {
    EXPECT_EQ(hexEncode(PairWire::encodeFrame({})), "00000000");
}

TEST(PairWire, EncodesTheLargestPayloadAndNoLargerOne) {
    const Bytes frame = PairWire::encodeFrame(Bytes(65536, std::byte{0xA5}));
    EXPECT_EQ(frame.size(), 65540u);
    EXPECT_EQ(hexEncode(ByteView(frame).first(4)), "00010000");
    EXPECT_EQ(frame.back(), std::byte{0xA5});

    const PairWire::Error error = failureOf([] { static_cast<void>(PairWire::encodeFrame(Bytes(65537))); });
    EXPECT_EQ(error.which(), Case::frameTooLarge);
    EXPECT_EQ(error.description(), "pair frame size 65537 exceeds 65536");
}

TEST(PairWire, ReadsLengthsUpToTheLargest) {
    EXPECT_EQ(lengthOf("00000000"), 0u);
    EXPECT_EQ(lengthOf("00000001"), 1u);
    EXPECT_EQ(lengthOf("00000100"), 256u);
    EXPECT_EQ(lengthOf("0000ffff"), 65535u);
    EXPECT_EQ(lengthOf("00010000"), 65536u);
}

TEST(PairWire, RefusesALengthBeyondTheLargest) {
    for (const auto& [prefix, length] :
         std::initializer_list<std::pair<const char*, const char*>>{{"00010001", "65537"},
                                                                    {"7fffffff", "2147483647"},
                                                                    {"80000000", "2147483648"},
                                                                    {"ffffffff", "4294967295"}}) {
        const PairWire::Error error = failureOf([&] { static_cast<void>(lengthOf(prefix)); });
        EXPECT_EQ(error.which(), Case::frameTooLarge) << prefix;
        EXPECT_EQ(error.description(), std::string("pair frame size ") + length + " exceeds 65536");
    }
}

TEST(PairWire, RefusesAPrefixOfFewerThanFourBytes) {
    for (const char* prefix : {"", "00", "0000", "000000", "ffffff"}) {
        const PairWire::Error error = failureOf([&] { static_cast<void>(lengthOf(prefix)); });
        EXPECT_EQ(error.which(), Case::frameTooShort) << prefix;
        EXPECT_EQ(error.description(), "pair frame shorter than length prefix");
    }
}

TEST(PairWire, LooksAtTheFirstFourBytesOnly) {
    EXPECT_EQ(lengthOf("00000002ffffffff"), 2u);
    EXPECT_EQ(PairWire::parseLengthPrefix(PairWire::encodeFrame(Bytes(777))), 777u);
}

TEST(PairWireError, HasItsPayload) {
    EXPECT_EQ(PairWire::Error::frameTooLarge(65537).length(), 65537);
    EXPECT_EQ(PairWire::Error::frameTooShort().length(), 0);
}

} // namespace
