#include "base/Uuid.h"

#include <gtest/gtest.h>

#include <array>

namespace orlinth {
namespace {

TEST(Uuid, IsUpperCaseWithHyphensAndTheBitsOfVersionFour) {
    std::array<std::byte, 16> random{};
    EXPECT_EQ(uuidText(random), "00000000-0000-4000-8000-000000000000");
    random.fill(std::byte{0xff});
    EXPECT_EQ(uuidText(random), "FFFFFFFF-FFFF-4FFF-BFFF-FFFFFFFFFFFF");
}

TEST(Uuid, KeepsTheOrderOfTheBytes) {
    std::array<std::byte, 16> random{};
    for (std::size_t i = 0; i < random.size(); ++i) {
        random[i] = static_cast<std::byte>(0x11 * i);
    }
    EXPECT_EQ(uuidText(random), "00112233-4455-4677-8899-AABBCCDDEEFF");
}

} // namespace
} // namespace orlinth
