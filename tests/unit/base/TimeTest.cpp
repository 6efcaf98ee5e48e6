#include "base/Time.h"

#include <gtest/gtest.h>

#include <limits>
#include <type_traits>

namespace orlinth {
namespace {

template <typename One, typename Other>
concept Compares = requires(One one, Other other) { one < other; };

static_assert(std::is_convertible_v<std::chrono::milliseconds, Seconds>);
static_assert(!std::is_convertible_v<int, Seconds> && !std::is_convertible_v<double, Seconds>,
              "a bare number does not say whether it is seconds or milliseconds");
static_assert(!std::is_convertible_v<Seconds, double>);
static_assert(!std::is_convertible_v<std::int64_t, EpochMilliseconds>);
static_assert(!std::is_convertible_v<Seconds, EpochMilliseconds> && !std::is_convertible_v<EpochMilliseconds, Seconds>);
static_assert(!Compares<EpochMilliseconds, std::int64_t> && !Compares<EpochMilliseconds, Seconds>);
static_assert(!std::is_convertible_v<EpochNanoseconds, EpochMilliseconds>, "what is lost has to be said");

TEST(Time, GivesMomentsTheirNumbersInFilesAndBack) {
    using Limits = std::numeric_limits<std::int64_t>;
    for (const std::int64_t number : {std::int64_t{0}, std::int64_t{1'731'686'400'000}, Limits::min(), Limits::max()}) {
        EXPECT_EQ(toNumber(fromEpochMilliseconds(number)), number);
        EXPECT_EQ(toNumber(fromEpochNanoseconds(number)), number);
    }
}

TEST(Time, CountsFromTheUnixEpoch) {
    constexpr EpochMilliseconds moment = std::chrono::sys_days(std::chrono::year(2024) / 11 / 15) + 16h;
    EXPECT_EQ(toNumber(moment), 1'731'686'400'000);
    EXPECT_EQ(toNumber(EpochNanoseconds(moment)), 1'731'686'400'000'000'000);
}

TEST(Time, LeavesOutWhatIsLessThanAMillisecond) {
    EXPECT_EQ(toNumber(inMilliseconds(fromEpochNanoseconds(1'999'999))), 1);
    EXPECT_EQ(toNumber(inMilliseconds(fromEpochNanoseconds(999'999))), 0);
    EXPECT_EQ(toNumber(inMilliseconds(fromEpochNanoseconds(-1'999'999))), -1);
}

} // namespace
} // namespace orlinth
