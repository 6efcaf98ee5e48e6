#include "OrlinthHost/Phones/RemovedPeers.h"
#include "unit/orlinth/CommandWorld.h"

namespace orlinth::cli {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class PeersCommandTest : public CommandWorldTest {
protected:
    Ended peers(std::vector<std::string> words = {}) {
        words.insert(words.begin(), "peers");
        return CommandWorldTest::run(makePeersCommand, words);
    }
    [[nodiscard]] Task<> takeWhatComes(Seconds time) {
        const auto phone = co_await ScriptedPeer::accept(world, world.phoneKey);
        static_cast<void>(co_await phone->expect<Row::Unpair>());
        wasTold = true;
        co_await world.clock.sleep(time);
        phone->close();
    }
    [[nodiscard]] std::vector<platform::PublicKey> removed() {
        return host::RemovedPeers(world.files, world.system.directories.data / KeyVault::defaultDirectoryName).load();
    }

    bool wasTold = false;
};

TEST_F(PeersCommandTest, TellsAPhoneThatIsThereThatItWasRemoved) {
    world.alongside(takeWhatComes(0s));
    const Ended ended = peers({"remove", "pixel"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.output, "forgot Pixel-8\n");
    EXPECT_THAT(ended.errors, ElementsAre("Pixel-8 was told."));
    EXPECT_TRUE(wasTold);
    EXPECT_THAT(book().peers, IsEmpty());
    EXPECT_THAT(removed(), ElementsAre(world.phoneKey.publicKey())) << "in case that the message was lost";
}

TEST_F(PeersCommandTest, GivesAPhoneThatIsAwayFiveSecondsInAll) {
    const auto expectForgotten = [this](const Ended& ended, const std::string& reason) {
        EXPECT_EQ(ended.status, 0);
        EXPECT_EQ(ended.after, 5);
        EXPECT_EQ(ended.output, "forgot Pixel-8\n");
        EXPECT_THAT(ended.errors, ElementsAre("Pixel-8 could not be told now (" + reason +
                                              "); it is told when it connects to `orlinth serve`."));
        EXPECT_THAT(book().peers, IsEmpty());
    };
    world.alongside(proveNothing());
    expectForgotten(peers({"remove", "Pixel-8"}), "it did not answer");
    pair({world.phoneRecord()});
    world.network.makeSilent(world.phoneRecord().peer_ip);
    const Ended unreachable = peers({"remove", "Pixel-8"});
    EXPECT_EQ(unreachable.after, 5);
    EXPECT_EQ(unreachable.status, 0);
}

TEST_F(PeersCommandTest, WakesNobodyToSayThatItWasRemoved) {
    PeerRecord sleeping = world.phoneRecord();
    sleeping.peer_fcm_token = "token";
    pair({sleeping});
    const Ended ended = peers({"remove", "Pixel-8"});
    EXPECT_THAT(ended.errors.at(0), HasSubstr("could not be told now"));
    EXPECT_EQ(ended.after, 0);
    EXPECT_THAT(world.https.requests, IsEmpty());
}

TEST_F(PeersCommandTest, ForgetsExactlyThePhoneThatIsMeant) {
    PeerRecord other = world.phoneRecord();
    other.peer_hostname = "Pixel-7";
    other.peer_pubkey = platform::PrivateKey::generate().publicKey().peerKey();
    pair({world.phoneRecord(), other});
    const Ended unclear = peers({"remove", "pixel"});
    EXPECT_EQ(unclear.status, 1);
    EXPECT_THAT(unclear.errors.at(0), HasSubstr("selector 'pixel' is ambiguous (matches: Pixel-8, Pixel-7)"));
    EXPECT_EQ(book().peers.size(), 2U);
    EXPECT_EQ(peers({"remove", "PIXEL-8"}).status, 0);
    EXPECT_THAT(book().peers, ElementsAre(other));
    EXPECT_EQ(peers({"remove", "PIXEL-8"}).failure(), "orlinth: no paired phone matches 'PIXEL-8'");
}

TEST_F(PeersCommandTest, KeepsThePushTokenAndPrintsItNowhere) {
    const std::string key = platform::PrivateKey::generate().publicKey().base64();
    const std::vector<std::string> add{"add",  "--pubkey", key,      "--ip",        "203.0.113.7", "--port",
                                       "4711", "--name",   "Galaxy", "--fcm-token", "very secret"};
    std::string everything;
    for (const std::vector<std::string>& words :
         {add, std::vector<std::string>{}, {"--json"}, {"--json", "remove", "galaxy"}}) {
        const Ended ended = peers(words);
        EXPECT_EQ(ended.status, 0);
        everything += ended.output;
        for (const std::string& line : ended.errors) {
            everything += line;
        }
        if (words == add) {
            EXPECT_EQ(book().find(PeerKey(key))->peer_fcm_token, "very secret");
        }
    }
    EXPECT_THAT(everything, HasSubstr("\"has_fcm_token\":true"));
    EXPECT_THAT(everything, Not(HasSubstr("very secret")));
}

TEST_F(PeersCommandTest, RecordsNoPhoneWithThisComputersKey) {
    const Ended ended =
        peers({"add", "--pubkey", ownKey().base64(), "--ip", "203.0.113.7", "--port", "1", "--name", "me"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.failure(), "orlinth: this is the computer's own key");
    EXPECT_EQ(book().peers.size(), 1U);
}

TEST_F(PeersCommandTest, ListsNobodyWithoutAFailure) {
    pair({});
    const Ended ended = peers();
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.output, "");
    EXPECT_THAT(ended.errors, ElementsAre("No phone is paired yet. `orlinth pair` pairs one."));
}

TEST_F(PeersCommandTest, ListsPhonesInColumnsOfWhatTheyTakeOnTheScreen) {
    PeerRecord other = world.phoneRecord();
    other.peer_hostname = "東京";
    pair({world.phoneRecord(), other});
    std::istringstream lines(peers().output);
    std::string line;
    std::vector<std::string> starts;
    while (std::getline(lines, line)) {
        starts.push_back(line.substr(0, line.find("203.0.113.2")));
    }
    ASSERT_EQ(starts.size(), 3U);
    EXPECT_THAT(starts[0], HasSubstr("NAME     ADDRESS"));
    EXPECT_EQ(starts[1], "Pixel-8  ");
    EXPECT_EQ(starts[2], "東京     ");
}

} // namespace
} // namespace orlinth::cli
