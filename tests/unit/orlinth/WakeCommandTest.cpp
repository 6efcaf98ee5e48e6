#include "unit/orlinth/CommandWorld.h"

namespace orlinth::cli {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class WakeCommandTest : public CommandWorldTest {
protected:
    Ended wake(std::vector<std::string> words) {
        words.insert(words.begin(), "wake");
        return CommandWorldTest::run(makeWakeCommand, words);
    }
};

TEST_F(WakeCommandTest, SaysThatAPhoneWithoutAPushTokenCannotBeWoken) {
    const Ended ended = wake({"pixel", "--json"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.failure(), "orlinth: no push token is recorded for 'Pixel-8'");
    EXPECT_THAT(ended.errors.back(), HasSubstr("`orlinth peers add --fcm-token` records it."));
    ASSERT_EQ(ended.events().size(), 1U);
    EXPECT_EQ(ended.events()[0].at("to"), "Pixel-8");
    EXPECT_THAT(world.https.requests, IsEmpty());
}

TEST_F(WakeCommandTest, NeedsTheKeyFileOfThePushProject) {
    PeerRecord sleeping = world.phoneRecord();
    sleeping.peer_fcm_token = "very secret";
    pair({sleeping});
    const Ended ended = wake({"pixel"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_THAT(ended.failure(), HasSubstr("orlinth: "));
    EXPECT_EQ(ended.output, "");
    EXPECT_THAT(ended.errors, testing::Each(testing::Not(HasSubstr("very secret"))));
    EXPECT_THAT(world.https.requests, IsEmpty());
    EXPECT_THAT(world.network.attempts, IsEmpty()) << "the phone itself is not called";
}

TEST_F(WakeCommandTest, WakesNobodyIfNobodyIsMeant) {
    EXPECT_EQ(wake({"nobody"}).failure(), "orlinth: no paired phone matches 'nobody'");
}

} // namespace
} // namespace orlinth::cli
