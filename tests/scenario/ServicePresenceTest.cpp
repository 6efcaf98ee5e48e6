#include "OrlinthCore/Share/ServicePresence.h"

#include "base/Error.h"
#include "fakes/World.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace orlinth {
namespace {

using testing::IsEmpty;

const platform::Path presenceSocket = "/home/ann/.local/share/Orlinth/service.sock";
const std::string presenceAnswer =
    R"({"phones":[{"can_wake":true,"peer_pubkey":"a=","seen_epoch_ms":1731686400000,"state":"here"},)"
    R"({"peer_pubkey":"b=","seen_epoch_ms":0,"state":"dancing"}]})";

/// Another program of the user's, which takes one connection and says this.
Task<> answerPresence(fakes::World& world, std::string says, Seconds after) {
    const std::unique_ptr<platform::Listener> listener =
        world.unixSockets.listen(presenceSocket, world.context.get_executor());
    const std::unique_ptr<platform::Stream> stream = co_await listener->accept(world.context.get_executor());
    const std::string question = "{\"request\":\"presence\"}\n";
    Bytes asked(question.size());
    const std::size_t count = co_await stream->readExact(asked);
    EXPECT_EQ(count, question.size());
    EXPECT_EQ(toText(asked), question);
    co_await world.clock.sleep(after);
    try {
        co_await stream->writeAll(asBytes(says));
    } catch (const Error&) {
        // nobody waits any more
    }
}

class ServicePresenceTest : public testing::Test {
protected:
    [[nodiscard]] std::vector<SharePresence> ask() {
        return world_.run(ServicePresence::ask(world_.unixSockets, world_.clock, presenceSocket, 50ms));
    }
    [[nodiscard]] std::vector<SharePresence> askWhoSays(std::string says, Seconds after = 0s) {
        world_.alongside(answerPresence(world_, std::move(says), after));
        return ask();
    }

    fakes::World world_;
};

TEST_F(ServicePresenceTest, IsWhatTheServiceSays) {
    EXPECT_EQ(ServicePresence::socketOf(world_.system.directories), presenceSocket);
    const std::vector<SharePresence> expected{{.pubkey = PeerKey("a="),
                                               .state = SharePresence::State::here,
                                               .canWake = true,
                                               .seen = fromEpochMilliseconds(1'731'686'400'000)},
                                              {.pubkey = PeerKey("b=")}};
    EXPECT_EQ(askWhoSays(presenceAnswer + "\n"), expected);
    EXPECT_EQ(world_.clock.elapsed(), 0);
}

TEST_F(ServicePresenceTest, IsNothingWithoutAService) {
    EXPECT_THAT(ask(), IsEmpty());
}

TEST_F(ServicePresenceTest, IsNothingIfTheAnswerComesLate) {
    EXPECT_THAT(askWhoSays(presenceAnswer + "\n", 51ms), IsEmpty());
}

TEST_F(ServicePresenceTest, IsNothingIfTheAnswerMakesNoSense) {
    for (const std::string& says : {std::string(), presenceAnswer, std::string("{}\n"), std::string("nonsense\n"),
                                    std::string(R"({"error":"unknown request"})"
                                                "\n"),
                                    std::string(R"({"phones":[5]})"
                                                "\n"),
                                    std::string(5000, ' ') + "\n"}) {
        EXPECT_THAT(askWhoSays(says), IsEmpty()) << says.substr(0, 100);
    }
}

} // namespace
} // namespace orlinth
