#include "platform/Event.h"

#include "fakes/CancelMidway.h"
#include "fakes/RunTask.h"
#include "fakes/VirtualClock.h"

#include <asio/executor_work_guard.hpp>
#include <asio/strand.hpp>
#include <gmock/gmock.h>

#include <thread>

namespace orlinth::platform {
namespace {

using testing::ElementsAre;

struct EventTest : testing::Test {
    asio::io_context context;
    fakes::VirtualClock clock{context};
    std::optional<Event> event{std::in_place, context.get_executor()};
    std::vector<std::string> ended;

    void settle() {
        context.restart();
        context.poll();
    }
    Task<> await(std::string name) {
        co_await event->wait();
        ended.push_back(name);
    }
    Task<bool> awaitFor(Seconds time) {
        const bool hasCome = co_await event->wait(clock, time);
        co_return hasCome;
    }
    Task<> setAfter(Seconds time) {
        co_await clock.sleep(time);
        event->set();
    }
    void start(Task<> task) {
        spawn(context.get_executor(), std::move(task), [](const std::exception_ptr& error) { EXPECT_FALSE(error); });
        settle();
    }
};

TEST_F(EventTest, LetsWaitersGoOnWhenItIsSetAndLaterOnesAtOnce) {
    start(await("a"));
    start(await("b"));
    EXPECT_FALSE(event->isSet());
    EXPECT_TRUE(ended.empty());
    event->set();
    EXPECT_TRUE(event->isSet());
    EXPECT_TRUE(ended.empty()) << "nobody resumes inside set()";
    settle();
    EXPECT_THAT(ended, ElementsAre("a", "b"));
    fakes::runTask(context, await("c"));
    EXPECT_THAT(ended, ElementsAre("a", "b", "c"));
}

TEST_F(EventTest, SettingItTwiceIsSettingItOnce) {
    event->set();
    event->set();
    fakes::runTask(context, await("a"));
    event->reset();
    EXPECT_FALSE(event->isSet());
    EXPECT_TRUE(fakes::isCancelled(fakes::cancelMidway(context, await("b"))));
    EXPECT_THAT(ended, ElementsAre("a"));
}

TEST_F(EventTest, AResetTakesNothingFromThoseWhoWaitedBefore) {
    start(await("before"));
    event->set();
    event->reset();
    start(await("behind"));
    EXPECT_THAT(ended, ElementsAre("before"));
    event->set();
    settle();
    EXPECT_THAT(ended, ElementsAre("before", "behind"));
}

TEST_F(EventTest, ThrowsCancelledOutOfAWait) {
    EXPECT_TRUE(fakes::isCancelled(fakes::cancelMidway(context, await("a"))));
    event->set();
    settle();
    EXPECT_TRUE(ended.empty());
}

TEST_F(EventTest, AWaitThatIsCancelledBeforeItBeginsIsCancelled) {
    asio::cancellation_signal stop;
    std::exception_ptr end;
    spawn(context.get_executor(), await("a"), stop.slot(), [&end](std::exception_ptr error) { end = error; });
    stop.emit(asio::cancellation_type::terminal);
    settle();
    ASSERT_TRUE(end);
    try {
        std::rethrow_exception(end);
    } catch (const std::exception& error) {
        EXPECT_TRUE(isCancellation(error));
    }
}

TEST_F(EventTest, MayGoWhileSomebodyWaitsWhoStillCanBeCancelled) {
    asio::cancellation_signal stop;
    std::exception_ptr end;
    spawn(context.get_executor(), await("a"), stop.slot(), [&end](std::exception_ptr error) { end = error; });
    settle();
    event.reset();
    settle();
    EXPECT_FALSE(end);
    stop.emit(asio::cancellation_type::terminal);
    settle();
    EXPECT_TRUE(fakes::isCancelled(end));
}

TEST_F(EventTest, MayGoRightAfterItWasSet) {
    start(await("a"));
    event->set();
    event.reset();
    settle();
    EXPECT_THAT(ended, ElementsAre("a"));
}

TEST_F(EventTest, WaitsNoLongerThanItsLimit) {
    EXPECT_FALSE(fakes::runVirtual(context, clock, awaitFor(5s)));
    EXPECT_EQ(clock.elapsed(), 5);
    start(setAfter(3s));
    EXPECT_TRUE(fakes::runVirtual(context, clock, awaitFor(5s)));
    EXPECT_EQ(clock.elapsed(), 8);
    EXPECT_TRUE(fakes::runVirtual(context, clock, awaitFor(0s)));
    EXPECT_EQ(clock.pendingAlarms(), 0U);
}

TEST_F(EventTest, IsSetFromAnyThread) {
    const auto work = asio::make_work_guard(context);
    for (int round = 0; round < 200; ++round) {
        event.emplace(context.get_executor());
        ended.clear();
        spawn(context.get_executor(), await("a"), [](const std::exception_ptr& error) { EXPECT_FALSE(error); });
        std::thread setter([this] { event->set(); });
        context.restart();
        while (ended.empty() && context.run_one_for(std::chrono::seconds(30)) > 0) {
        }
        setter.join();
        context.poll();
        ASSERT_THAT(ended, ElementsAre("a")) << "a wake-up was lost in round " << round;
    }
}

TEST_F(EventTest, WakesOnItsOwnQueueWhoeverSetsIt) {
    // Two queues on two threads hand a turn to and fro; each event is set where the other queue runs.
    constexpr int rounds = 500;
    asio::io_context other;
    Event ping(context.get_executor());
    Event pong(other.get_executor());
    const auto hand = [](Event& mine, Event& theirs, bool begins, int& count) -> Task<> {
        if (begins) {
            theirs.set();
        }
        for (int i = 0; i < rounds; ++i) {
            co_await mine.wait();
            mine.reset();
            ++count;
            theirs.set();
        }
    };
    int here = 0;
    int there = 0;
    spawn(context.get_executor(), hand(ping, pong, true, here), [](const std::exception_ptr& e) { EXPECT_FALSE(e); });
    spawn(other.get_executor(), hand(pong, ping, false, there), [](const std::exception_ptr& e) { EXPECT_FALSE(e); });
    const auto work = asio::make_work_guard(other);
    std::thread thread([&other] { other.run(); });
    const auto workHere = asio::make_work_guard(context);
    context.restart();
    while (here < rounds && context.run_one_for(std::chrono::seconds(30)) > 0) {
    }
    EXPECT_EQ(here, rounds);
    other.stop();
    thread.join();
    EXPECT_GE(there, rounds - 1);
}

} // namespace
} // namespace orlinth::platform
