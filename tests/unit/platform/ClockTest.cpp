#include "platform/Clock.h"

#include <gtest/gtest.h>

#include <type_traits>

namespace orlinth::platform {
namespace {

using Instant = Clock::Instant;

template <typename Time>
concept IsSleptFor = requires(Clock& clock, Time time) { clock.sleep(time); };
template <typename One, typename Other>
concept Adds = requires(One one, Other other) { one + other; };
template <typename One, typename Other>
concept Subtracts = requires(One one, Other other) { one - other; };
template <typename One, typename Other>
concept Compares = requires(One one, Other other) { one < other; };

static_assert(IsSleptFor<Seconds> && IsSleptFor<std::chrono::milliseconds>);
static_assert(!IsSleptFor<Instant>, "an instant is no time to wait");
static_assert(!IsSleptFor<double> && !IsSleptFor<int>);
static_assert(Adds<Instant, Seconds> && !Adds<Instant, Instant>);
static_assert(Compares<Instant, Instant> && !Compares<Instant, Seconds>);
static_assert(!Compares<Instant, EpochMilliseconds> && !Subtracts<Instant, EpochMilliseconds>,
              "the two clocks have nothing to do with each other");

TEST(Clock, TheTimeBetweenTwoInstantsIsADuration) {
    const Instant start{};
    const Instant end = start + 250ms;
    const Seconds between = end - start;
    EXPECT_EQ(between.count(), 0.25);
    static_assert(std::is_same_v<decltype(end - start), Seconds>);
}

} // namespace
} // namespace orlinth::platform
