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
    void pass(Seconds time) { world.run(world.clock.sleep(time)); }

    fakes::World world;
    std::vector<double> cancelledAt;
    const std::function<void()> cancel = [this] { cancelledAt.push_back(world.clock.elapsed()); };
};

TEST_F(TimeLimitTest, CancelsAtTheVeryInstant) {
    TimeLimit limit(world.clock, world.context.get_executor(), cancel);
    limit.begin(2500ms);
    EXPECT_FALSE(limit.hasExpired());
    pass(10s);
    EXPECT_THAT(cancelledAt, ElementsAre(2.5));
    EXPECT_TRUE(limit.hasExpired());
}

TEST_F(TimeLimitTest, CancelsNothingThatHasEndedBefore) {
    TimeLimit limit(world.clock, world.context.get_executor(), cancel);
    limit.begin(2500ms);
    pass(2400ms);
    limit.end();
    pass(10s);
    EXPECT_THAT(cancelledAt, IsEmpty());
    EXPECT_FALSE(limit.hasExpired());
}

TEST_F(TimeLimitTest, GivesTheNextStepTimeOfItsOwn) {
    TimeLimit limit(world.clock, world.context.get_executor(), cancel);
    limit.begin(5s);
    pass(4s);
    limit.begin(5s);
    pass(4500ms);
    EXPECT_THAT(cancelledAt, IsEmpty()) << "what was left of the first step does not count";
    pass(10s);
    EXPECT_THAT(cancelledAt, ElementsAre(9));
}

TEST_F(TimeLimitTest, CancelsNothingOnceItIsGone) {
    {
        TimeLimit limit(world.clock, world.context.get_executor(), cancel);
        limit.begin(1s);
    }
    pass(10s);
    EXPECT_THAT(cancelledAt, IsEmpty());
}

TEST_F(TimeLimitTest, IsNoneOfZeroSeconds) {
    TimeLimit limit(world.clock, world.context.get_executor(), cancel);
    limit.begin(5s);
    limit.begin(0s);
    pass(3600s);
    EXPECT_THAT(cancelledAt, IsEmpty());
    EXPECT_FALSE(limit.hasExpired());
}

} // namespace
} // namespace orlinth::platform
