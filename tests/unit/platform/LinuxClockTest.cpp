#include "platform/linux/LinuxClock.h"

#include "base/Error.h"
#include "fakes/CancelMidway.h"
#include "fakes/RunTask.h"

#include <asio/post.hpp>

#include <limits>

namespace orlinth::platform {
namespace {

Task<> sleepFor(Clock& clock, Seconds time) {
    co_await clock.sleep(time);
}

TEST(LinuxClock, TellsTheWallClockInMilliseconds) {
    const auto before = std::chrono::system_clock::now();
    const EpochMilliseconds told = LinuxClock().epochMilliseconds();
    const auto after = std::chrono::system_clock::now();
    using std::chrono::milliseconds;
    EXPECT_GE(told, std::chrono::floor<milliseconds>(before));
    EXPECT_LE(told, std::chrono::ceil<milliseconds>(after));
}

TEST(LinuxClock, SleepsAtLeastAsLongAsAsked) {
    asio::io_context context;
    LinuxClock clock;
    const Clock::Instant start = clock.now();
    fakes::runTask(context, sleepFor(clock, 20ms));
    EXPECT_GE((clock.now() - start).count(), 0.02);
}

TEST(LinuxClock, ReturnsAtTheNextTurnForZeroNegativeAndNonsense) {
    asio::io_context context;
    LinuxClock clock;
    fakes::runTask(context, sleepFor(clock, 0s));
    fakes::runTask(context, sleepFor(clock, -5s));
    fakes::runTask(context, sleepFor(clock, Seconds(std::numeric_limits<double>::quiet_NaN())));
}

TEST(LinuxClock, ThrowsCancelledWhenTheTaskIsCancelledDuringASleepOfAnyLength) {
    asio::io_context context;
    LinuxClock clock;
    EXPECT_TRUE(fakes::isCancelled(fakes::cancelMidway(context, sleepFor(clock, 3600s))));
    EXPECT_TRUE(fakes::isCancelled(
        fakes::cancelMidway(context, sleepFor(clock, Seconds(std::numeric_limits<double>::infinity())))));
}

TEST(LinuxTimer, CallsTheActionOnce) {
    asio::io_context context;
    LinuxClock clock;
    const std::unique_ptr<Timer> timer = clock.makeTimer(context.get_executor());
    int calls = 0;
    timer->arm(1ms, [&calls] { ++calls; });
    context.run();
    EXPECT_EQ(calls, 1);
}

TEST(LinuxTimer, ReplacesTheAlarmThatWasSetBefore) {
    asio::io_context context;
    LinuxClock clock;
    const std::unique_ptr<Timer> timer = clock.makeTimer(context.get_executor());
    std::string calls;
    timer->arm(1ms, [&calls] { calls += "first "; });
    timer->arm(2ms, [&calls] { calls += "second "; });
    context.run();
    EXPECT_EQ(calls, "second ");
}

TEST(LinuxTimer, DoesNotCallAnActionThatWasTakenBackWhileItsHandlerWasQueued) {
    asio::io_context context;
    LinuxClock clock;
    const std::unique_ptr<Timer> first = clock.makeTimer(context.get_executor());
    const std::unique_ptr<Timer> second = clock.makeTimer(context.get_executor());
    int calls = 0;
    // Both are due at the same turn, so whichever runs first finds the other's handler in the queue.
    first->arm(0s, [&] {
        ++calls;
        second->disarm();
    });
    second->arm(0s, [&] {
        ++calls;
        first->disarm();
    });
    context.run();
    EXPECT_EQ(calls, 1);
}

TEST(LinuxTimer, DoesNotCallAStaleActionAfterItWasSetAnewWhileQueued) {
    asio::io_context context;
    LinuxClock clock;
    const std::unique_ptr<Timer> first = clock.makeTimer(context.get_executor());
    const std::unique_ptr<Timer> second = clock.makeTimer(context.get_executor());
    std::string calls;
    first->arm(0s, [&] {
        calls += "first ";
        second->arm(1ms, [&] { calls += "anew "; });
    });
    second->arm(0s, [&] { calls += "stale "; });
    context.run();
    EXPECT_EQ(calls, "first anew ");
}

TEST(LinuxTimer, LeavesNothingBehindWhenItGoes) {
    asio::io_context context;
    LinuxClock clock;
    int calls = 0;
    clock.makeTimer(context.get_executor())->arm(3600s, [&calls] { ++calls; });
    context.run_for(std::chrono::seconds(5));
    EXPECT_TRUE(context.stopped());
    EXPECT_EQ(calls, 0);
}

TEST(LinuxTimer, MayBeDestroyedOrSetAgainByItsOwnAction) {
    asio::io_context context;
    LinuxClock clock;
    std::unique_ptr<Timer> timer = clock.makeTimer(context.get_executor());
    int calls = 0;
    timer->arm(0s, [&] {
        ++calls;
        timer->arm(0s, [&] {
            ++calls;
            timer.reset();
        });
    });
    context.run();
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(timer, nullptr);
}

} // namespace
} // namespace orlinth::platform
