#include "OrlinthHost/Chores.h"

#include "fakes/World.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orlinth::host {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ChoresTest : public testing::Test {
protected:
    fakes::World world;
    Chores chores{world.queues, "orlinth.test"};
    std::vector<int> done;
};

TEST_F(ChoresTest, AreDoneInTheirOrderAndNotByTheOneWhoGivesThem) {
    chores.add([this] { done.push_back(1); });
    chores.add([this] { done.push_back(2); });
    EXPECT_THAT(done, IsEmpty()) << "whoever gives a chore goes on";
    world.run(chores.finish());
    EXPECT_THAT(done, ElementsAre(1, 2));
}

TEST_F(ChoresTest, HaveAQueueOfTheirOwnThatIsNamed) {
    EXPECT_THAT(world.queues.labels, ElementsAre("orlinth.test"));
    EXPECT_FALSE(world.queues.isOnBlockingQueue());
}

TEST_F(ChoresTest, AreFinishedAtOnceWhereThereAreNone) {
    world.run(chores.finish());
    EXPECT_EQ(world.clock.elapsed(), 0);
}

} // namespace
} // namespace orlinth::host
