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
    void hold(Seconds time) {
        std::unique_ptr<File> file = open();
        ASSERT_TRUE(file->tryLock());
        world.alongside([](fakes::World& there, std::unique_ptr<File> his, Seconds until) -> Task<> {
            co_await there.clock.sleep(until);
            his.reset();
            there.folders.change("/home/ann");
        }(world, std::move(file), time));
    }
    bool lock(Seconds time) { return world.run(lockWithin(world.system.storage(), *mine, path, time)); }

    fakes::World world;
    const Path path = "/home/ann/some.lock";
    std::unique_ptr<File> mine = (world.files.put(path, ""), world.files.open(path, OpenMode::write));
};

TEST_F(LockWaitTest, HasWhatNobodyHoldsAtOnce) {
    EXPECT_TRUE(lock(5s));
    EXPECT_DOUBLE_EQ(world.clock.elapsed(), 0);
    EXPECT_FALSE(open()->tryLock());
}

TEST_F(LockWaitTest, HasItTheMomentThatItIsFree) {
    hold(2500ms);
    EXPECT_TRUE(lock(5s));
    EXPECT_DOUBLE_EQ(world.clock.elapsed(), 2.5);
    EXPECT_FALSE(world.folders.isWatched("/home/ann"));
}

TEST_F(LockWaitTest, HasItAlsoIfTheCloseIsSeenBeforeTheLockIsFree) {
    std::unique_ptr<File> file = open();
    ASSERT_TRUE(file->tryLock());
    world.alongside([](fakes::World& there, std::unique_ptr<File> his) -> Task<> {
        co_await there.clock.sleep(1s);
        there.folders.change("/home/ann");
        co_await there.clock.sleep(1ms);
        his.reset();
    }(world, std::move(file)));
    EXPECT_TRUE(lock(5s));
    EXPECT_LT(world.clock.elapsed(), 1.1);
}

TEST_F(LockWaitTest, WaitsNoLongerThanItMay) {
    hold(6s);
    EXPECT_FALSE(lock(5s));
    EXPECT_DOUBLE_EQ(world.clock.elapsed(), 5);
}

TEST_F(LockWaitTest, TriesOnceMoreAtTheEndWhereNothingIsSeen) {
    world.folders.errorNumber = EMFILE;
    hold(1s);
    EXPECT_TRUE(lock(5s));
    EXPECT_DOUBLE_EQ(world.clock.elapsed(), 5);
}

TEST_F(LockWaitTest, IsNotTakenInByOtherChanges) {
    hold(3s);
    world.alongside([](fakes::World& there) -> Task<> {
        for (int i = 0; i < 20; ++i) {
            co_await there.clock.sleep(100ms);
            there.folders.change("/home/ann");
        }
    }(world));
    EXPECT_TRUE(lock(5s));
    EXPECT_DOUBLE_EQ(world.clock.elapsed(), 3);
}

} // namespace
} // namespace orlinth::platform
