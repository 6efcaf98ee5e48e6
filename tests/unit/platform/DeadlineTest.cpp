#include "platform/Deadline.h"

#include "fakes/CancelMidway.h"
#include "fakes/RunTask.h"
#include "platform/SystemError.h"
#include "platform/linux/LinuxClock.h"

#include <asio/bind_cancellation_slot.hpp>
#include <asio/cancellation_signal.hpp>
#include <asio/post.hpp>
#include <asio/this_coro.hpp>
#include <asio/use_awaitable.hpp>

namespace orlinth::platform {
namespace {

// Where the deadline must not matter it is an hour: waiting for it would fail the test.
constexpr Seconds anHour = 3600s;

std::exception_ptr timedOut() {
    return std::make_exception_ptr(SystemError("timed out"));
}

Task<int> answerAfter(Clock& clock, Seconds time, int answer) {
    co_await clock.sleep(time);
    co_return answer;
}

Task<int> failAfter(Clock& clock, Seconds time) {
    co_await clock.sleep(time);
    throw SystemError("its own failure");
}

/// Clears up for some turns after it was cancelled, as an operation that has to say goodbye does.
Task<int> leaveSlowly(Clock& clock, bool& left) {
    bool cancelled = false;
    try {
        co_await clock.sleep(anHour);
    } catch (const Cancelled&) {
        cancelled = true;
    }
    if (cancelled) {
        co_await asio::this_coro::reset_cancellation_state();
        for (int turn = 0; turn < 5; ++turn) {
            co_await asio::post(asio::use_awaitable);
        }
        left = true;
        throw Cancelled();
    }
    co_return 0;
}

Task<int> underDeadline(Clock& clock, Seconds time, Task<int> operation) {
    OneShot<int> outcome;
    co_await settleFirst(outcome, clock, time, timedOut(), std::move(operation));
    co_return outcome.take();
}

Task<> ignoreAnswer(Task<int> task) {
    co_await std::move(task);
}

std::string failureOf(asio::io_context& context, Task<int> task) {
    try {
        fakes::runTask(context, std::move(task));
    } catch (const std::exception& error) {
        return describe(error);
    }
    return "";
}

class Deadline : public testing::Test {
protected:
    asio::io_context context_;
    LinuxClock clock_;
};

TEST_F(Deadline, GivesTheResultThatComesInTime) {
    EXPECT_EQ(fakes::runTask(context_, underDeadline(clock_, anHour, answerAfter(clock_, 1ms, 7))), 7);
}

TEST_F(Deadline, LetsTheOperationsOwnErrorOutAtOnceNotAtTheDeadline) {
    EXPECT_EQ(failureOf(context_, underDeadline(clock_, anHour, failAfter(clock_, 1ms))), "its own failure");
}

TEST_F(Deadline, FailsWithTheGivenErrorAndEndsTheOperationWhenTimeIsUp) {
    bool left = false;
    EXPECT_EQ(failureOf(context_, underDeadline(clock_, 10ms, leaveSlowly(clock_, left))), "timed out");
    EXPECT_TRUE(left) << "the operation was not waited for";
}

TEST_F(Deadline, WaitsForEverWithoutADeadline) {
    EXPECT_EQ(fakes::runTask(context_, underDeadline(clock_, 0s, answerAfter(clock_, 10ms, 7))), 7);
    EXPECT_EQ(fakes::runTask(context_, underDeadline(clock_, -1s, answerAfter(clock_, 10ms, 8))), 8);
    EXPECT_EQ(failureOf(context_, underDeadline(clock_, 0s, failAfter(clock_, 1ms))), "its own failure");
}

TEST_F(Deadline, PassesACancellationFromOutsideOnAsCancelled) {
    for (const Seconds time : {anHour, Seconds(0)}) {
        const std::exception_ptr end =
            fakes::cancelMidway(context_, ignoreAnswer(underDeadline(clock_, time, answerAfter(clock_, anHour, 7))));
        EXPECT_TRUE(fakes::isCancelled(end)) << describe(end);
    }
}

TEST_F(Deadline, DoesNotTakeACancellationForATimeoutWhereTheOperationIsSlowToLeave) {
    bool left = false;
    const std::exception_ptr end =
        fakes::cancelMidway(context_, ignoreAnswer(underDeadline(clock_, anHour, leaveSlowly(clock_, left))));
    EXPECT_TRUE(fakes::isCancelled(end)) << describe(end);
    EXPECT_TRUE(left);
}

TEST_F(Deadline, EndsAsCancelledAtWhateverTurnTheCancellationComes) {
    for (int turns = 0; turns < 20; ++turns) {
        asio::io_context context;
        LinuxClock clock;
        asio::cancellation_signal stop;
        std::exception_ptr failure;
        bool ended = false;
        asio::co_spawn(context, underDeadline(clock, anHour, answerAfter(clock, anHour, 1)),
                       asio::bind_cancellation_slot(stop.slot(), [&](std::exception_ptr error, int) {
                           failure = std::move(error);
                           ended = true;
                       }));
        for (int turn = 0; turn < turns; ++turn) {
            context.poll_one();
        }
        stop.emit(asio::cancellation_type::terminal);
        context.run_for(std::chrono::seconds(10));
        ASSERT_TRUE(ended) << turns;
        ASSERT_TRUE(failure) << turns;
        try {
            std::rethrow_exception(failure);
        } catch (const std::exception& error) {
            EXPECT_TRUE(isCancellation(error)) << turns << ": " << error.what();
        }
    }
}

} // namespace
} // namespace orlinth::platform
