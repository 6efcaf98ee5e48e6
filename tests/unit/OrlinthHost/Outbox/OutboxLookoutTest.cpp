#include "OrlinthHost/Outbox/OutboxLookout.h"

#include "OrlinthCore/Share/ShareOutbox.h"
#include "fakes/World.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>

namespace orlinth::host {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const platform::Path outbox = "/home/ann/outbox";
const platform::Path batch = outbox / "0A1B2C3D-4E5F-4071-8293-A4B5C6D7E8F9";

class OutboxLookoutTest : public testing::Test {
protected:
    OutboxLookoutTest() { world.files.putFolder(outbox); }
    ~OutboxLookoutTest() override { lookout.stop(); }

    void pass(Seconds time) { world.run(world.clock.sleep(time)); }
    void ring() { ShareOutbox::postPending(world.busSignals); }
    /// Starts, and has had the first look.
    void start() {
        lookout.start();
        pass(OutboxLookout::gatherDelay);
        static_cast<void>(looks());
        begin = world.clock.elapsed();
    }
    /// When there was a look since the last call, in seconds after start().
    [[nodiscard]] std::vector<double> looks() { return std::exchange(instants, {}); }
    void note() {
        instants.push_back(std::round((world.clock.elapsed() - begin) * 1000) / 1000);
        if (isFolderThere) {
            lookout.watch(outbox, incomplete);
        } else {
            lookout.watch(std::nullopt, {});
        }
    }

    fakes::World world;
    Home home{world.system, world.context.get_executor()};
    std::vector<double> instants;
    double begin = 0;
    bool isFolderThere = true;
    std::set<platform::Path> incomplete;
    OutboxLookout lookout{home, [this] { note(); }};
};

TEST_F(OutboxLookoutTest, LooksSoonAfterTheStartAndThenOnceAMinute) {
    lookout.start();
    EXPECT_THAT(looks(), IsEmpty()) << "never from within a call";
    pass(125s);
    EXPECT_THAT(looks(), ElementsAre(0.05, 60.05, 120.05));
}

TEST_F(OutboxLookoutTest, HearsTheBell) {
    start();
    pass(7s);
    ring();
    pass(1s);
    EXPECT_THAT(looks(), ElementsAre(7.05));
}

TEST_F(OutboxLookoutTest, CountsTheMinuteFromTheLastLook) {
    start();
    pass(30s);
    ring();
    pass(90s);
    EXPECT_THAT(looks(), ElementsAre(30.05, 90.05));
}

TEST_F(OutboxLookoutTest, MakesOneLookOfManyReasonsCloseTogether) {
    start();
    for (int i = 0; i < 4; ++i) { // within 40 milliseconds
        ring();
        world.folders.change(outbox);
        lookout.lookSoon();
        pass(10ms);
    }
    pass(1s);
    EXPECT_THAT(looks(), ElementsAre(0.05));
    ring();
    pass(1s);
    EXPECT_THAT(looks(), ElementsAre(1.09)) << "what comes later gets a look of its own";
}

TEST_F(OutboxLookoutTest, SeesAChangeOfTheOutboxAndOfABatchThatIsNotCompleteYet) {
    incomplete = {batch};
    world.files.putFolder(batch);
    start();
    world.folders.change(outbox);
    pass(1s);
    EXPECT_THAT(looks(), ElementsAre(0.05));
    world.folders.change(batch);
    pass(1s);
    EXPECT_THAT(looks(), ElementsAre(1.05));
    incomplete.clear(); // it has got its manifest
    world.folders.change(batch);
    pass(1s);
    EXPECT_THAT(looks(), ElementsAre(2.05));
    EXPECT_FALSE(world.folders.isWatched(batch));
    EXPECT_TRUE(world.folders.isWatched(outbox));
}

TEST_F(OutboxLookoutTest, LooksEverySecondWhereTheFolderCannotBeWatched) {
    world.folders.errorNumber = ENOSPC;
    start();
    pass(3500ms);
    EXPECT_THAT(looks(), ElementsAre(1, 2, 3));
    world.folders.errorNumber.reset();
    pass(120s);
    EXPECT_THAT(looks(), ElementsAre(4, 64)) << "once it can be, that is enough";
}

TEST_F(OutboxLookoutTest, LooksEverySecondForAnOutboxThatIsNotThere) {
    isFolderThere = false;
    start();
    pass(2500ms);
    EXPECT_THAT(looks(), ElementsAre(1, 2));
    isFolderThere = true;
    pass(60s);
    EXPECT_THAT(looks(), ElementsAre(3));
}

TEST_F(OutboxLookoutTest, WatchesTheFolderThatHasTheNameNowAndNotTheOneThatHadItBefore) {
    start();
    const auto folder = world.files.status(outbox);
    world.files.putFolder("/home/ann/another");
    world.files.swapIn("/home/ann/another", outbox);
    ASSERT_FALSE(platform::isSameFile(*folder, *world.files.status(outbox)));
    const int before = world.folders.begun;
    pass(61s);
    EXPECT_THAT(looks(), ElementsAre(60));
    EXPECT_EQ(world.folders.begun, before + 1);
    pass(60s);
    EXPECT_EQ(world.folders.begun, before + 1) << "once is enough";
    EXPECT_TRUE(world.folders.isWatched(outbox));
}

TEST_F(OutboxLookoutTest, SaysNothingBeforeTheStartAndAfterTheEnd) {
    lookout.lookSoon();
    ring();
    pass(100s);
    EXPECT_THAT(looks(), IsEmpty());
    start();
    ring(); // is under way when the end comes
    world.folders.change(outbox);
    lookout.lookSoon();
    lookout.stop();
    lookout.lookSoon();
    pass(100s);
    EXPECT_THAT(looks(), IsEmpty());
    EXPECT_EQ(world.busSignals.listeners(), 0U);
    EXPECT_FALSE(world.folders.isWatched(outbox));
    EXPECT_EQ(world.clock.pendingAlarms(), 0U);
}

TEST(OutboxLookoutEnd, MayComeFromWithinALook) {
    fakes::World world;
    Home home{world.system, world.context.get_executor()};
    OutboxLookout* self = nullptr;
    int looks = 0;
    OutboxLookout lookout(home, [&] {
        ++looks;
        self->stop();
    });
    self = &lookout;
    lookout.start();
    world.run(world.clock.sleep(300s));
    EXPECT_EQ(looks, 1);
    EXPECT_EQ(world.clock.pendingAlarms(), 0U);
}

} // namespace
} // namespace orlinth::host
