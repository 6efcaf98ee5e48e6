#include "platform/Condition.h"

#include "fakes/CancelMidway.h"
#include "fakes/RunTask.h"
#include "fakes/VirtualClock.h"

#include <asio/post.hpp>
#include <asio/use_awaitable.hpp>
#include <gmock/gmock.h>

#include <stdexcept>

namespace orlinth::platform {
namespace {

using testing::ElementsAre;

struct ConditionTest : testing::Test {
    asio::io_context context;
    fakes::VirtualClock clock{context};
    Condition condition{context.get_executor()};
    int value = 0;
    int looks = 0;
    std::vector<std::string> ended;

    void set(int now) {
        value = now;
        condition.changed();
    }
    void settle() {
        context.restart();
        context.poll();
    }

    Task<> awaitValue(int wanted) {
        const auto isThere = [this, wanted] {
            ++looks;
            return value == wanted;
        };
        co_await condition.until(isThere);
        ended.push_back(std::to_string(wanted));
    }
    Task<bool> awaitValueFor(int wanted, Seconds time) {
        const auto isThere = [this, wanted] { return value == wanted; };
        const bool hasCome = co_await condition.until(isThere, clock, time);
        co_return hasCome;
    }
    Task<> setAfter(Seconds time, int now) {
        co_await clock.sleep(time);
        set(now);
    }
    Task<> awaitWhatThrows() {
        const auto isThere = [this]() -> bool {
            if (value != 0) {
                throw std::runtime_error("cannot look");
            }
            return false;
        };
        co_await condition.until(isThere);
    }

    void start(Task<> task) {
        spawn(context.get_executor(), std::move(task), [](const std::exception_ptr& error) { EXPECT_FALSE(error); });
        settle();
    }
};

TEST_F(ConditionTest, ReturnsAtOnceIfItIsSo) {
    fakes::runTask(context, awaitValue(0));
    EXPECT_THAT(ended, ElementsAre("0"));
    EXPECT_EQ(looks, 1);
}

TEST_F(ConditionTest, WaitsForTheChangeThatMakesItSo) {
    start(awaitValue(2));
    set(1);
    settle();
    EXPECT_TRUE(ended.empty());
    set(2);
    settle();
    EXPECT_THAT(ended, ElementsAre("2"));
    EXPECT_EQ(looks, 3) << "it looks when it comes, and at each change, and else it sleeps";
}

TEST_F(ConditionTest, WakesEveryoneWhoWaits) {
    start(awaitValue(1));
    start(awaitValue(1));
    start(awaitValue(2));
    set(1);
    settle();
    EXPECT_THAT(ended, ElementsAre("1", "1"));
    set(2);
    settle();
    EXPECT_THAT(ended, ElementsAre("1", "1", "2"));
}

TEST_F(ConditionTest, GoesOnWaitingIfTheStateHasChangedBackBeforeTheTaskResumes) {
    start(awaitValue(1));
    set(1);
    set(0);
    settle();
    EXPECT_TRUE(ended.empty());
    set(1);
    settle();
    EXPECT_THAT(ended, ElementsAre("1"));
}

TEST_F(ConditionTest, LosesNoChangeOfTheTurnInWhichATaskBeginsToWait) {
    for (int turn = 0; turn < 4; ++turn) { // before it has begun, in its first turn, and behind that
        value = 0;
        ended.clear();
        spawn(context.get_executor(), awaitValue(1), [](const std::exception_ptr& error) { EXPECT_FALSE(error); });
        context.restart();
        for (int i = 0; i < turn; ++i) {
            context.poll_one();
        }
        set(1);
        settle();
        EXPECT_THAT(ended, ElementsAre("1")) << turn;
    }
}

TEST_F(ConditionTest, ThrowsCancelledOutOfAWaitAndServesTheOthers) {
    start(awaitValue(1));
    asio::cancellation_signal stop;
    std::exception_ptr end;
    spawn(context.get_executor(), awaitValue(1), stop.slot(), [&end](std::exception_ptr error) { end = error; });
    settle();
    stop.emit(asio::cancellation_type::terminal);
    settle();
    EXPECT_TRUE(fakes::isCancelled(end));
    EXPECT_TRUE(ended.empty());
    set(1);
    settle();
    EXPECT_THAT(ended, ElementsAre("1"));
}

TEST_F(ConditionTest, CancellingBeforeTheWaitBeginsIsACancellationToo) {
    asio::cancellation_signal stop;
    std::exception_ptr end;
    spawn(context.get_executor(), awaitValue(1), stop.slot(), [&end](std::exception_ptr error) { end = error; });
    stop.emit(asio::cancellation_type::terminal);
    settle();
    ASSERT_TRUE(end);
    try {
        std::rethrow_exception(end);
    } catch (const std::exception& error) {
        EXPECT_TRUE(isCancellation(error));
    }
    EXPECT_TRUE(ended.empty());
}

TEST_F(ConditionTest, ThrowsWhatThePredicateThrows) {
    spawn(context.get_executor(), awaitWhatThrows(), [this](const std::exception_ptr& error) {
        EXPECT_THROW(std::rethrow_exception(error), std::runtime_error);
        ended.emplace_back("thrown");
    });
    settle();
    EXPECT_TRUE(ended.empty());
    set(1);
    settle();
    EXPECT_THAT(ended, ElementsAre("thrown"));
}

TEST_F(ConditionTest, WaitsNoLongerThanItsLimit) {
    EXPECT_FALSE(fakes::runVirtual(context, clock, awaitValueFor(1, 5s)));
    EXPECT_EQ(clock.elapsed(), 5);
    EXPECT_EQ(clock.pendingAlarms(), 0U);
}

TEST_F(ConditionTest, TellsThatItCameWithinTheLimitAndLeavesNoAlarm) {
    start(setAfter(3s, 1));
    EXPECT_TRUE(fakes::runVirtual(context, clock, awaitValueFor(1, 5s)));
    EXPECT_EQ(clock.elapsed(), 3);
    EXPECT_EQ(clock.pendingAlarms(), 0U);
}

TEST_F(ConditionTest, LooksOnceIfThereIsNoTimeToWait) {
    EXPECT_TRUE(fakes::runVirtual(context, clock, awaitValueFor(0, 0s)));
    EXPECT_FALSE(fakes::runVirtual(context, clock, awaitValueFor(1, 0s)));
    EXPECT_FALSE(fakes::runVirtual(context, clock, awaitValueFor(1, -1s)));
    EXPECT_EQ(clock.elapsed(), 0);
}

Task<> ignore(Task<bool> task) {
    static_cast<void>(co_await std::move(task));
}

TEST_F(ConditionTest, AWaitWithALimitIsCancelledLikeAnyOther) {
    EXPECT_TRUE(fakes::isCancelled(fakes::cancelMidway(context, ignore(awaitValueFor(1, 5s)))));
    EXPECT_EQ(clock.pendingAlarms(), 0U);
}

} // namespace
} // namespace orlinth::platform
