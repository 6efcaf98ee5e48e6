#include "base/Endian.h"

#include <gtest/gtest.h>

#include <array>

namespace orlinth {
namespace {

TEST(Endian, StoresThirtyTwoBitsMostSignificantByteFirst) {
    std::array<std::byte, 4> bytes{};
    storeBigEndian32(bytes, 0x01020380);
    EXPECT_EQ(bytes, (std::array{std::byte{1}, std::byte{2}, std::byte{3}, std::byte{0x80}}));
}

TEST(Endian, LoadsWhatItStored) {
    for (const std::uint32_t value : {0U, 1U, 0xffU, 0x100U, 0x0100'0040U, 0x7fff'ffffU, 0x8000'0000U, 0xffff'ffffU}) {
        std::array<std::byte, 4> bytes{};
        storeBigEndian32(bytes, value);
        EXPECT_EQ(loadBigEndian32(bytes), value);
    }
}

TEST(Endian, StoresSixtyFourBitsLeastSignificantByteFirst) {
    std::array<std::byte, 8> bytes{};
    storeLittleEndian64(bytes, 0x8877'6655'4433'2211);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        EXPECT_EQ(std::to_integer<unsigned>(bytes[i]), 0x11 * (i + 1));
    }
}

} // namespace
} // namespace orlinth
