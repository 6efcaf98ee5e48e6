#include "OrlinthHost/Service/Watchdog.h"

#include "fakes/World.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

namespace orlinth::host {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class WatchdogTest : public testing::Test {
protected:
    void pass(Seconds time) { fakes::runVirtual(world_.context, world_.clock, world_.clock.sleep(time)); }
    /// "NAME SECONDS" of each thread that is reported meanwhile.
    [[nodiscard]] std::vector<std::string> lateWhile(Seconds time) {
        pass(time);
        return std::exchange(late_, {});
    }

    fakes::World world_;
    Home home_{world_.system, world_.context.get_executor()};
    int alive_ = 0;
    std::int64_t more_ = 0;
    std::vector<std::string> late_;
    Watchdog::Callbacks callbacks_{.onLate =
                                       [this](const platform::LateQueue& late) {
                                           late_.push_back(late.label + " " +
                                                           std::to_string(std::lround(late.silence.count())));
                                       },
                                   .onMoreLate = [this](std::int64_t count) { more_ += count; },
                                   .onAlive = [this] { ++alive_; }};
};

TEST_F(WatchdogTest, ReportsAThreadOnceWhileItHangs) {
    Watchdog watchdog(home_, std::nullopt, callbacks_);
    watchdog.start();
    EXPECT_THAT(lateWhile(10s), IsEmpty());
    world_.queues.late = {{.label = "orlinth.receiver.connection", .silence = 2200ms, .thread = 1}};
    EXPECT_THAT(lateWhile(10s), ElementsAre("orlinth.receiver.connection 2"));
    world_.queues.late.push_back({.label = "orlinth.receiver.records", .silence = 2100ms, .thread = 2});
    EXPECT_THAT(lateWhile(10s), ElementsAre("orlinth.receiver.records 2"));
    world_.queues.late.clear();
    EXPECT_THAT(lateWhile(60s), IsEmpty());
    world_.queues.late = {{.label = "again", .silence = 3s}};
    EXPECT_THAT(lateWhile(1s), ElementsAre("again 3"));
    world_.run(watchdog.finish());
    EXPECT_EQ(0, alive_) << "nobody wants to hear it";
}

TEST_F(WatchdogTest, ReportsAThreadThatBecomesLateWhenAnotherOneHasRecovered) {
    constexpr const char* connection = "orlinth.receiver.connection";
    Watchdog watchdog(home_, std::nullopt, callbacks_);
    watchdog.start();
    world_.queues.late = {{.label = connection, .silence = 2200ms, .thread = 1}};
    EXPECT_THAT(lateWhile(2s), ElementsAre("orlinth.receiver.connection 2"));
    world_.queues.late = {{.label = connection, .silence = 2100ms, .thread = 2}}; // between two looks
    EXPECT_THAT(lateWhile(10s), ElementsAre("orlinth.receiver.connection 2"));
    world_.queues.late = {{.label = connection, .silence = 9s, .thread = 2},
                          {.label = connection, .silence = 2300ms, .thread = 1}};
    EXPECT_THAT(lateWhile(10s), ElementsAre("orlinth.receiver.connection 2")) << "the first one again, and only that";
    world_.run(watchdog.finish());
}

TEST_F(WatchdogTest, TellsTheServiceManagerOnlyWhileAllThreadsAnswer) {
    Watchdog watchdog(home_, 8s, callbacks_);
    watchdog.start();
    pass(20200ms);
    EXPECT_EQ(11, alive_) << "four times as often as it must";
    world_.queues.late = {{.label = "x", .silence = 3900ms}};
    pass(20s);
    EXPECT_EQ(21, alive_) << "a slow disk is no hang";
    world_.queues.late = {{.label = "x", .silence = 4s}};
    pass(20s);
    EXPECT_EQ(21, alive_);
    world_.queues.late.clear();
    pass(1s);
    EXPECT_EQ(22, alive_) << "at once when they answer again";
    world_.run(watchdog.finish());
}

TEST_F(WatchdogTest, LooksSeldomWhileNothingGoesOn) {
    Watchdog watchdog(home_, std::nullopt, callbacks_);
    watchdog.start();
    pass(100s);
    const std::size_t before = world_.queues.looks;
    pass(600s);
    EXPECT_EQ(10U, world_.queues.looks - before);
    watchdog.stir();
    pass(10200ms);
    EXPECT_EQ(10U + 1 + 20, world_.queues.looks - before) << "at once, and twice a second";
    world_.run(watchdog.finish());
}

TEST_F(WatchdogTest, ReportsAThreadThatBeginsToHangWhileItRests) {
    Watchdog watchdog(home_, std::nullopt, callbacks_);
    watchdog.start();
    pass(200s);
    world_.queues.late = {{.label = "x", .silence = 60s, .thread = 1}};
    EXPECT_THAT(lateWhile(60s), ElementsAre("x 60"));
    const std::size_t before = world_.queues.looks;
    pass(10s);
    EXPECT_EQ(20U, world_.queues.looks - before) << "it watches until that is over";
    world_.run(watchdog.finish());
}

TEST_F(WatchdogTest, LooksAtOnceWhenSomethingBeginsSoThatAHangFromThereIsReported) {
    Watchdog watchdog(home_, std::nullopt, callbacks_);
    watchdog.start();
    pass(200s);
    watchdog.stir();
    world_.queues.late = {{.label = "x", .silence = 2s, .thread = 1}};
    EXPECT_THAT(lateWhile(1s), ElementsAre("x 2"));
    world_.run(watchdog.finish());
    watchdog.stir(); // too late, and without effect
    pass(1s);
}

TEST_F(WatchdogTest, TellsTheServiceManagerOftenEnoughWhileItRests) {
    Watchdog watchdog(home_, 180s, callbacks_);
    watchdog.start();
    pass(100s);
    alive_ = 0;
    const std::size_t before = world_.queues.looks;
    pass(450s);
    EXPECT_EQ(10, alive_);
    EXPECT_EQ(10U, world_.queues.looks - before);
    world_.run(watchdog.finish());
}

TEST_F(WatchdogTest, ReportsAFewThreadsAMinuteAndCountsTheOthers) {
    Watchdog watchdog(home_, std::nullopt, callbacks_);
    watchdog.start();
    for (std::size_t number = 0; number < 100; ++number) {
        world_.queues.late.push_back({.label = "x", .silence = 3s, .thread = number});
    }
    pass(1s);
    EXPECT_EQ(late_.size(), static_cast<std::size_t>(limits::linesOfStrangers));
    EXPECT_EQ(more_, 0);
    pass(60s);
    EXPECT_EQ(late_.size() + static_cast<std::size_t>(more_), 100U);
    world_.run(watchdog.finish());
}

} // namespace
} // namespace orlinth::host
