#include "platform/TimeLimit.h"

#include "fakes/World.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orlinth::platform {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class TimeLimitTest : public testing::Test {
protected:
    void pass(double seconds) { world.run(world.clock.sleep(seconds)); }

    fakes::World world;
    std::vector<double> cancelledAt;
    const std::function<void()> cancel = [this] { cancelledAt.push_back(world.clock.elapsed()); };
};

TEST_F(TimeLimitTest, CancelsAtTheVeryInstant) {
    TimeLimit limit(world.clock, world.context.get_executor(), cancel);
    limit.begin(2.5);
    EXPECT_FALSE(limit.hasExpired());
    pass(10);
    EXPECT_THAT(cancelledAt, ElementsAre(2.5));
    EXPECT_TRUE(limit.hasExpired());
}

TEST_F(TimeLimitTest, CancelsNothingThatHasEndedBefore) {
    TimeLimit limit(world.clock, world.context.get_executor(), cancel);
    limit.begin(2.5);
    pass(2.4);
    limit.end();
    pass(10);
    EXPECT_THAT(cancelledAt, IsEmpty());
    EXPECT_FALSE(limit.hasExpired());
}

TEST_F(TimeLimitTest, GivesTheNextStepTimeOfItsOwn) {
    TimeLimit limit(world.clock, world.context.get_executor(), cancel);
    limit.begin(5);
    pass(4);
    limit.begin(5);
    pass(4.5);
    EXPECT_THAT(cancelledAt, IsEmpty()) << "what was left of the first step does not count";
    pass(10);
    EXPECT_THAT(cancelledAt, ElementsAre(9));
}

TEST_F(TimeLimitTest, CancelsNothingOnceItIsGone) {
    {
        TimeLimit limit(world.clock, world.context.get_executor(), cancel);
        limit.begin(1);
    }
    pass(10);
    EXPECT_THAT(cancelledAt, IsEmpty());
}

TEST_F(TimeLimitTest, IsNoneOfZeroSeconds) {
    TimeLimit limit(world.clock, world.context.get_executor(), cancel);
    limit.begin(5);
    limit.begin(0);
    pass(3600);
    EXPECT_THAT(cancelledAt, IsEmpty());
    EXPECT_FALSE(limit.hasExpired());
}

} // namespace
} // namespace orlinth::platform
