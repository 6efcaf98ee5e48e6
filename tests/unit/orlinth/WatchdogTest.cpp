#include "orlinth/Watchdog.h"

#include "fakes/World.h"

#include <gtest/gtest.h>

namespace orlinth::host {
namespace {

class WatchdogTest : public testing::Test {
protected:
    void pass(double seconds) { fakes::runVirtual(world_.context, world_.clock, world_.clock.sleep(seconds)); }
    [[nodiscard]] std::string saidWhile(double seconds) {
        testing::internal::CaptureStderr();
        pass(seconds);
        return testing::internal::GetCapturedStderr();
    }

    fakes::World world_;
    TaskRunner tasks_{world_.context};
    Output output_;
    Host host_{world_.system, tasks_, output_};
    int alive_ = 0;
};

TEST_F(WatchdogTest, ReportsAThreadOnceWhileItHangs) {
    Watchdog watchdog(host_, std::nullopt, [this] { ++alive_; });
    watchdog.start();
    EXPECT_EQ("", saidWhile(10));
    world_.network.late = {{.label = "orlinth.receiver.connection", .seconds = 2.2}};
    EXPECT_EQ("orlinth: a thread has not answered for 2 seconds: orlinth.receiver.connection\n", saidWhile(10));
    world_.network.late.push_back({.label = "orlinth.receiver.records", .seconds = 2.1});
    EXPECT_EQ("orlinth: a thread has not answered for 2 seconds: orlinth.receiver.records\n", saidWhile(10));
    world_.network.late.clear();
    EXPECT_EQ("", saidWhile(60));
    world_.network.late = {{.label = "again", .seconds = 3}};
    EXPECT_EQ("orlinth: a thread has not answered for 3 seconds: again\n", saidWhile(1));
    world_.run(watchdog.finish());
    EXPECT_EQ(0, alive_) << "nobody wants to hear it";
}

TEST_F(WatchdogTest, TellsTheServiceManagerOnlyWhileAllThreadsAnswer) {
    Watchdog watchdog(host_, 8.0, [this] { ++alive_; });
    watchdog.start();
    pass(20.2);
    EXPECT_EQ(11, alive_) << "four times as often as it must";
    world_.network.late = {{.label = "x", .seconds = 3.9}};
    testing::internal::CaptureStderr();
    pass(20);
    EXPECT_EQ(21, alive_) << "a slow disk is no hang";
    world_.network.late = {{.label = "x", .seconds = 4}};
    pass(20);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(21, alive_);
    world_.network.late.clear();
    pass(1);
    EXPECT_EQ(22, alive_) << "at once when they answer again";
    world_.run(watchdog.finish());
}

} // namespace
} // namespace orlinth::host
