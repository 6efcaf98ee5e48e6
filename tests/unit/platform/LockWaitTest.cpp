#include "platform/LockWait.h"

#include "fakes/World.h"
#include "platform/SystemError.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace orlinth::platform {
namespace {

class LockWaitTest : public testing::Test {
protected:
    [[nodiscard]] std::unique_ptr<File> open() { return world.files.open(path, OpenMode::write); }
    /// Somebody else has it for so long, and is seen to close it.
    void hold(double seconds) {
        std::unique_ptr<File> file = open();
        ASSERT_TRUE(file->tryLock());
        world.alongside([](fakes::World& there, std::unique_ptr<File> his, double until) -> Task<> {
            co_await there.clock.sleep(until);
            his.reset();
            there.folders.change("/home/ann");
        }(world, std::move(file), seconds));
    }
    bool lock(double seconds) { return world.run(lockWithin(world.system.storage(), *mine, path, seconds)); }

    fakes::World world;
    const Path path = "/home/ann/some.lock";
    std::unique_ptr<File> mine = (world.files.put(path, ""), world.files.open(path, OpenMode::write));
};

TEST_F(LockWaitTest, HasWhatNobodyHoldsAtOnce) {
    EXPECT_TRUE(lock(5));
    EXPECT_DOUBLE_EQ(world.clock.elapsed(), 0);
    EXPECT_FALSE(open()->tryLock());
}

TEST_F(LockWaitTest, HasItTheMomentThatItIsFree) {
    hold(2.5);
    EXPECT_TRUE(lock(5));
    EXPECT_DOUBLE_EQ(world.clock.elapsed(), 2.5);
    EXPECT_FALSE(world.folders.isWatched("/home/ann"));
}

TEST_F(LockWaitTest, HasItAlsoIfTheCloseIsSeenBeforeTheLockIsFree) {
    std::unique_ptr<File> file = open();
    ASSERT_TRUE(file->tryLock());
    world.alongside([](fakes::World& there, std::unique_ptr<File> his) -> Task<> {
        co_await there.clock.sleep(1);
        there.folders.change("/home/ann");
        co_await there.clock.sleep(0.001);
        his.reset();
    }(world, std::move(file)));
    EXPECT_TRUE(lock(5));
    EXPECT_LT(world.clock.elapsed(), 1.1);
}

TEST_F(LockWaitTest, WaitsNoLongerThanItMay) {
    hold(6);
    EXPECT_FALSE(lock(5));
    EXPECT_DOUBLE_EQ(world.clock.elapsed(), 5);
}

TEST_F(LockWaitTest, TriesOnceMoreAtTheEndWhereNothingIsSeen) {
    world.folders.errorNumber = EMFILE;
    hold(1);
    EXPECT_TRUE(lock(5));
    EXPECT_DOUBLE_EQ(world.clock.elapsed(), 5);
}

TEST_F(LockWaitTest, IsNotTakenInByOtherChanges) {
    hold(3);
    world.alongside([](fakes::World& there) -> Task<> {
        for (int i = 0; i < 20; ++i) {
            co_await there.clock.sleep(0.1);
            there.folders.change("/home/ann");
        }
    }(world));
    EXPECT_TRUE(lock(5));
    EXPECT_DOUBLE_EQ(world.clock.elapsed(), 3);
}

} // namespace
} // namespace orlinth::platform
