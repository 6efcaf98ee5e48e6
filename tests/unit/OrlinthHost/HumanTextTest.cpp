#include "OrlinthHost/HumanText.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <limits>

namespace orlinth::host {
namespace {

struct Figure {
    double value;
    const char* text;
};

TEST(HumanText, CountsBytesInDecimalUnitsWithAtMostThreeDigits) {
    const Figure figures[] = {{0, "0 bytes"},
                              {1, "1 byte"},
                              {2, "2 bytes"},
                              {999, "999 bytes"},
                              {1'000, "1.0 kB"},
                              {1'549, "1.5 kB"},
                              {9'949, "9.9 kB"},
                              {9'950, "10 kB"},
                              {12'345, "12 kB"},
                              {999'499, "999 kB"},
                              {999'500, "1.0 MB"},
                              {5'400'000'000, "5.4 GB"},
                              {999'500'000'000, "1.0 TB"},
                              {2e15, "2.0 PB"}};
    for (const Figure& figure : figures) {
        EXPECT_EQ(humanSize(static_cast<std::int64_t>(figure.value)), figure.text);
    }
    EXPECT_EQ(humanSize(std::numeric_limits<std::int64_t>::max()), "9.2 EB");
}

TEST(HumanText, HasARateForEveryNumber) {
    constexpr double infinity = std::numeric_limits<double>::infinity();
    const Figure figures[] = {{8'100'000, "8.1 MB/s"}, {0.4, "0 bytes/s"}, {0.6, "1 byte/s"},
                              {-5, "0 bytes/s"},       {1e30, "1.0 EB/s"}, {infinity, "0 bytes/s"}};
    for (const Figure& figure : figures) {
        EXPECT_EQ(humanRate(figure.value), figure.text) << figure.value;
    }
    EXPECT_EQ(humanRate(std::numeric_limits<double>::quiet_NaN()), "0 bytes/s");
}

TEST(HumanText, ShowsTenthsOfSecondsThenSecondsThenMinutesThenHours) {
    const Figure figures[] = {{0, "0.0 s"},       {0.44, "0.4 s"},    {9.94, "9.9 s"},       {9.95, "10 s"},
                              {59.4, "59 s"},     {59.5, "1:00"},     {187, "3:07"},         {3'599.4, "59:59"},
                              {3'600, "1:00:00"}, {3'753, "1:02:33"}, {360'000, "100:00:00"}};
    for (const Figure& figure : figures) {
        EXPECT_EQ(humanDuration(Seconds(figure.value)), figure.text) << figure.value;
    }
}

TEST(HumanText, CountsFiles) {
    EXPECT_EQ(countOfFiles(0), "0 files");
    EXPECT_EQ(countOfFiles(1), "1 file");
    EXPECT_EQ(countOfFiles(3), "3 files");
}

TEST(HumanText, ShowsTimesInTheLocalTimeZone) {
    constexpr EpochMilliseconds noonInMarch = fromEpochMilliseconds(1'773'057'900'999); // 2026-03-09 12:05:00.999 UTC
    setenv("TZ", "UTC0", 1);
    tzset();
    EXPECT_EQ(humanTime(noonInMarch), "2026-03-09 12:05");
    EXPECT_EQ(humanTime(EpochMilliseconds()), "1970-01-01 00:00");
    setenv("TZ", "AHEAD-14", 1);
    tzset();
    EXPECT_EQ(humanTime(noonInMarch), "2026-03-10 02:05");
    unsetenv("TZ");
    tzset();
}

TEST(HumanText, SaysWhenOnlyOfToday) {
    constexpr EpochMilliseconds noon = fromEpochMilliseconds(1'773'057'900'999); // 2026-03-09 12:05:00.999 UTC
    setenv("TZ", "UTC0", 1);
    tzset();
    EXPECT_EQ(humanSince(noon, noon), "12:05");
    EXPECT_EQ(humanSince(noon, noon + 11h + 54min), "12:05");
    EXPECT_EQ(humanSince(noon, noon + 11h + 55min), "2026-03-09");
    EXPECT_EQ(humanSince(noon, noon - 13h), "2026-03-09") << "the clock was set back";
    unsetenv("TZ");
    tzset();
}

TEST(HumanText, HasNoTimeForAYearThatNoCalendarHas) {
    EXPECT_EQ(humanTime(EpochMilliseconds::max()), "292278994-08-17 07:12");
}

TEST(HumanText, IsShortenedToColumnsAndNotToBytes) {
    EXPECT_EQ(fitted("short", 5), "short");
    EXPECT_EQ(fitted("longer", 5), "long…");
    EXPECT_EQ(fitted("größer", 5), "größ…");
    EXPECT_EQ(fitted("日本語", 6), "日本語") << "each takes two columns";
    EXPECT_EQ(fitted("日本語", 5), "日本…");
    EXPECT_EQ(fitted("日本語", 4), "日…") << "half of a character is none";
    EXPECT_EQ(fitted("any", 1), "…");
    EXPECT_EQ(fitted("any", 0), "");
    EXPECT_EQ(fitted("", 0), "");
}

TEST(HumanText, IsFilledUpToColumnsAndNotToBytes) {
    EXPECT_EQ(padded("ab", 4), "ab  ");
    EXPECT_EQ(padded("ü", 4), "ü   ");
    EXPECT_EQ(padded("日本", 4), "日本");
    EXPECT_EQ(padded("longer", 4), "longer");
    EXPECT_EQ(padded("", 2), "  ");
}

TEST(HumanText, WrapsBetweenWords) {
    using Lines = std::vector<std::string>;
    EXPECT_EQ(wrapped("", 10), Lines());
    EXPECT_EQ(wrapped("one two", 7), Lines({"one two"}));
    EXPECT_EQ(wrapped("one two", 6), Lines({"one", "two"}));
    EXPECT_EQ(wrapped("a bcd ef g", 4), Lines({"a", "bcd", "ef g"}));
    EXPECT_EQ(wrapped("a much-too-long b", 5), Lines({"a", "much-too-long", "b"}));
    EXPECT_EQ(wrapped("日本 日本", 8), Lines({"日本", "日本"})) << "four columns each";
    EXPECT_EQ(wrapped("日本 日本", 9), Lines({"日本 日本"}));
}

} // namespace
} // namespace orlinth::host
