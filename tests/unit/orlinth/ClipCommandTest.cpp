#include "OrlinthCore/Share/ShareOutbox.h"
#include "unit/orlinth/CommandWorld.h"

namespace orlinth::cli {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

const std::string secret = "nobody else's business";

class ClipCommandTest : public CommandWorldTest {
protected:
    Ended clip(std::vector<std::string> words) {
        words.insert(words.begin(), "clip");
        return CommandWorldTest::run(makeClipCommand, words);
    }
    /// Takes the text, and hangs up so many seconds later.
    [[nodiscard]] Task<> take(Seconds time) {
        const auto phone = co_await ScriptedPeer::accept(world, world.phoneKey);
        const auto clipboard = co_await phone->expect<Row::Clipboard>();
        taken.push_back(clipboard.mime + ": " + clipboard.text);
        co_await world.clock.sleep(time);
        phone->close();
    }
    /// Takes the text, and keeps silent until the other side hangs up.
    [[nodiscard]] Task<> takeAndKeepSilent() {
        const auto phone = co_await ScriptedPeer::accept(world, world.phoneKey);
        const auto clipboard = co_await phone->expect<Row::Clipboard>();
        taken.push_back(clipboard.text);
        const bool ended = co_await phone->seesTheEnd();
        EXPECT_TRUE(ended);
    }
    [[nodiscard]] Task<> takeNothing() {
        const auto phone = co_await ScriptedPeer::accept(world, world.phoneKey);
        co_await world.clock.sleep(3600s);
    }
    [[nodiscard]] Task<> answer(Row message) {
        const auto phone = co_await ScriptedPeer::accept(world, world.phoneKey);
        const auto clipboard = co_await phone->expect<Row::Clipboard>();
        taken.push_back(clipboard.text);
        co_await phone->send(message);
        phone->close();
    }

    std::vector<std::string> taken;
};

TEST_F(ClipCommandTest, SendsTheTextAndSaysHowLongItWas) {
    world.alongside(take(0s));
    const Ended ended = clip({"--text", "Grüße", "--mime", "text/html"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.output, "sent 7 bytes of text to Pixel-8\n");
    EXPECT_THAT(ended.errors, IsEmpty());
    EXPECT_THAT(taken, ElementsAre("text/html: Grüße"));
}

TEST_F(ClipCommandTest, BringsTheShareSheetsListInStepWhenAPhoneHasTakenAText) {
    const auto shared = [this] { return ShareOutbox(world.files, world.system.directories).readPeers(); };
    EXPECT_THAT(shared(), IsEmpty());
    world.alongside(take(0s));
    EXPECT_EQ(clip({"--text", "a"}).status, 0);
    ASSERT_THAT(shared(), testing::SizeIs(1));
    EXPECT_EQ(shared()[0].pubkey, world.phoneRecord().peer_pubkey);
}

TEST_F(ClipCommandTest, GivesAPhoneThatProvesNothingTenSeconds) {
    world.alongside(proveNothing());
    const Ended ended = clip({"--text", secret, "--json"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.after, 10);
    EXPECT_THAT(ended.names(), ElementsAre("error"));
    EXPECT_EQ(ended.failure(), "orlinth: noise handshake: timed out after 10 seconds");
    EXPECT_THAT(ended.errors.back(), HasSubstr("The text was not sent to Pixel-8."));
}

TEST_F(ClipCommandTest, GivesUpOnAPhoneThatDoesNotAnswerAfterFiveSeconds) {
    world.network.makeSilent(world.phoneRecord().peer_ip);
    const Ended ended = clip({"--text", secret});
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.after, 5);
    EXPECT_EQ(ended.failure(), "orlinth: network: connect timed out");
    EXPECT_NEAR(clip({"--text", secret, "--warm-timeout", "0.3"}).after, 0.3, 1e-9);
}

TEST_F(ClipCommandTest, ReportsAtOnceThatAPhoneRefuses) {
    const Ended ended = clip({"--text", secret, "--json"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.after, 0);
    EXPECT_THAT(ended.events(),
                ElementsAre(Json({{"event", "error"}, {"to", "Pixel-8"}, {"message", "network: Connection refused"}})));
}

TEST_F(ClipCommandTest, GivesThePhoneASecondMoreToTakeEach250Kilobytes) {
    world.alongside(takeNothing());
    const Ended ended = clip({"--text", std::string(500'000, 'x'), "--timeout", "0.1", "--json"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_NEAR(ended.after, 2.1, 1e-9);
    EXPECT_THAT(ended.names(), ElementsAre("error"));
    EXPECT_EQ(ended.failure(), "orlinth: network: the phone did not take the text in 2.1 seconds");
}

TEST_F(ClipCommandTest, TakesTenSecondsOfSilenceBehindTheTextForADelivery) {
    world.alongside(takeAndKeepSilent());
    const Ended ended = clip({"--text", secret, "--json"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.after, 10);
    EXPECT_THAT(ended.names(), ElementsAre("complete"));
    EXPECT_THAT(ended.errors, ElementsAre("Pixel-8 has neither answered nor closed the connection."));
    EXPECT_THAT(taken, ElementsAre(secret));
    EXPECT_THAT(*world.network.keepAlives, IsEmpty()) << "the limit notices a phone that is gone";
}

TEST_F(ClipCommandTest, WaitsForTheAnswerAsLongAsItTakesWithoutALimit) {
    world.alongside(take(86'400s));
    const Ended ended = clip({"--text", secret, "--timeout", "0", "--json"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.after, 86'400);
    EXPECT_THAT(ended.names(), ElementsAre("complete"));
    ASSERT_EQ(world.network.keepAlives->size(), 1U) << "or else a phone that is gone would be waited for for ever";
    EXPECT_EQ(world.network.keepAlives->front().idle, 10s);
    EXPECT_EQ(world.network.keepAlives->front().interval * world.network.keepAlives->front().count, 15s);
}

TEST_F(ClipCommandTest, ReportsThatThePhoneHasRemovedThisComputerAndIgnoresOtherAnswers) {
    world.alongside(answer(Row::unpair()));
    EXPECT_THAT(clip({"--text", secret}).failure(), "orlinth: the phone removed this Mac. Pair again to send to it.");
    fakes::runUntilIdle(world.context, world.clock);
    world.alongside(answer(Row::done()));
    EXPECT_EQ(clip({"--text", secret}).status, 0);
}

TEST_F(ClipCommandTest, RepeatsTheTextNowhere) {
    world.alongside(answer(Row::unpair()));
    const Ended removed = clip({"--text", secret, "--json"});
    const Ended refused = clip({"--text", secret});
    std::string everything = removed.output + refused.output;
    for (const Ended& ended : {removed, refused}) {
        for (const std::string& line : ended.errors) {
            everything += line;
        }
    }
    for (const std::string& line : world.log.messages()) {
        everything += line;
    }
    EXPECT_THAT(everything, HasSubstr("removed this Mac"));
    EXPECT_THAT(everything, Not(HasSubstr(secret)));
}

TEST_F(ClipCommandTest, SendsToThePhoneThatWasPairedLastOrToTheOneThatIsNamed) {
    PeerRecord other = world.phoneRecord();
    other.peer_hostname = "Tablet";
    other.peer_pubkey = platform::PrivateKey::generate().publicKey().peerKey();
    other.peer_ip = "203.0.113.9";
    other.paired_at_epoch_ms = world.phoneRecord().paired_at_epoch_ms + 1ms;
    pair({world.phoneRecord(), other});
    world.network.makeSilent(other.peer_ip);
    EXPECT_EQ(clip({"--text", "a"}).failure(), "orlinth: network: connect timed out");
    world.alongside(take(0s));
    const Ended named = clip({"--text", "a", "--to", "pix"});
    EXPECT_EQ(named.status, 0) << named.failure();
    world.alongside(take(0s));
    const Ended next = clip({"--text", "a"});
    EXPECT_EQ(next.status, 0) << "it took the last text: " << next.failure();
    EXPECT_EQ(clip({"--text", "a", "--to", "nobody"}).failure(), "orlinth: no paired phone matches 'nobody'");
}

TEST_F(ClipCommandTest, SendsNoEmptyClipboard) {
    const Ended ended = clip({});
    EXPECT_EQ(ended.status, 1);
    EXPECT_THAT(world.network.attempts, IsEmpty());
}

} // namespace
} // namespace orlinth::cli
