#include "OrlinthHost/SizeText.h"

#include <gtest/gtest.h>

namespace orlinth::host {
namespace {

constexpr std::int64_t kibi = 1024;

TEST(SizeText, MeansWhatPeopleMean) {
    EXPECT_EQ(parseSize("0"), 0);
    EXPECT_EQ(parseSize("4096"), 4096);
    EXPECT_EQ(parseSize("4096B"), 4096);
    EXPECT_EQ(parseSize("512M"), 512 * kibi * kibi);
    EXPECT_EQ(parseSize("512 MiB"), 512 * kibi * kibi);
    EXPECT_EQ(parseSize("512mib"), 512 * kibi * kibi);
    EXPECT_EQ(parseSize("10G"), 10 * kibi * kibi * kibi);
    EXPECT_EQ(parseSize("1.5k"), 1536);
    EXPECT_EQ(parseSize("700MB"), 700'000'000);
    EXPECT_EQ(parseSize("2 TB"), 2'000'000'000'000);
    EXPECT_EQ(parseSize("1T"), kibi * kibi * kibi * kibi);
}

TEST(SizeText, IsNothingElse) {
    for (const char* text : {"", "M", "-1", "+1", " 1", "1 X", "1MM", "1MiBs", "1.", ".5G", "1.2.3", "1e3", "0x10",
                             "inf", "nan", "9223372036854775808", "9999999T", "1,5G", "ten"}) {
        EXPECT_EQ(parseSize(text), std::nullopt) << text;
    }
}

} // namespace
} // namespace orlinth::host
