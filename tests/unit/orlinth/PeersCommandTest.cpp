#include "OrlinthHost/HumanText.h"
#include "OrlinthHost/Phones/AddressMemory.h"
#include "OrlinthHost/Phones/RemovedPeers.h"
#include "OrlinthHost/Service/ControlMessage.h"
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
    /// A service that hangs.
    [[nodiscard]] Task<> acceptAndSayNothing() {
        const std::unique_ptr<platform::Listener> socket =
            world.unixSockets.listen(dataFolder / "service.sock", world.context.get_executor());
        const std::unique_ptr<platform::Stream> stream = co_await socket->accept(world.context.get_executor());
        co_await world.clock.sleep(5s);
    }
    [[nodiscard]] std::vector<platform::PublicKey> removed() {
        return host::RemovedPeers(world.files, world.system.directories.data / KeyVault::defaultDirectoryName).load();
    }

    /// What is in the last two columns of the phones, in their order.
    [[nodiscard]] std::vector<std::string> lastColumns() {
        std::istringstream lines(peers().output);
        std::string line;
        std::vector<std::string> found;
        std::getline(lines, line); // the names of the columns
        const std::size_t start = line.find("SEEN");
        while (std::getline(lines, line)) {
            found.push_back(line.substr(start));
        }
        return found;
    }

    bool wasTold = false;
};

TEST_F(PeersCommandTest, ShowsWhenAPhoneWasMetWithoutAService) {
    PeerRecord other = world.phoneRecord();
    other.peer_hostname = "Tablet";
    other.peer_pubkey = platform::PrivateKey::generate().publicKey().peerKey();
    pair({world.phoneRecord(), other});
    host::AddressMemory memory(world.files, world.clock, world.log, dataFolder);
    memory.came(other.peer_pubkey,
                {.host = host::HostAddress::parse("192.168.7.57").value(), .mac = {}, .network = {}});
    const EpochMilliseconds met = world.clock.epochMilliseconds();
    EXPECT_THAT(lastColumns(), ElementsAre("-      no", host::humanTime(met).substr(11) + "  no"));
    const Ended ended = peers({"--json"});
    const std::vector<Json> events = ended.events();
    ASSERT_EQ(events.size(), 2U);
    EXPECT_EQ(events[0].at("state"), "unknown");
    EXPECT_EQ(events[0].at("seen_epoch_ms"), 0);
    EXPECT_EQ(events[1].at("state"), "unknown");
    EXPECT_EQ(events[1].at("seen_epoch_ms"), toNumber(met));
    EXPECT_EQ(ended.after, 0);
}

TEST_F(PeersCommandTest, ShowsWhichPhonesAreThereAsTheServiceSays) {
    PeerRecord other = world.phoneRecord();
    other.peer_hostname = "Tablet";
    other.peer_pubkey = platform::PrivateKey::generate().publicKey().peerKey();
    pair({world.phoneRecord(), other});
    const std::string reply = host::encodeControlReply(host::PresenceReply{
        {{world.phoneRecord().peer_pubkey, host::PresenceState::here, world.clock.epochMilliseconds()},
         {other.peer_pubkey, host::PresenceState::asleep}}});
    world.alongside(serveOthers({reply, reply}));
    EXPECT_THAT(lastColumns(), ElementsAre("now     no", "asleep  no"));
    const std::vector<Json> events = peers({"--json"}).events();
    EXPECT_EQ(events.at(0).at("state"), "here");
    EXPECT_EQ(events.at(1).at("state"), "asleep");
    EXPECT_THAT(asked, ElementsAre(R"({"request":"presence"})", R"({"request":"presence"})"));
}

TEST_F(PeersCommandTest, WaitsASecondForAServiceThatSaysNothing) {
    world.alongside(acceptAndSayNothing());
    const Ended ended = peers();
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.after, 1);
    EXPECT_THAT(ended.output, HasSubstr("  -     no\n"));
    EXPECT_THAT(ended.errors, IsEmpty());
}

TEST_F(PeersCommandTest, SaysThatAPhoneCanBeWokenIfThereAreATokenAndAKey) {
    PeerRecord record = world.phoneRecord();
    record.peer_fcm_token = "token";
    pair({record});
    EXPECT_THAT(lastColumns(), ElementsAre("-     no"));
    world.files.put(dataFolder / "firebase-service-account.json", "{}");
    EXPECT_THAT(lastColumns(), ElementsAre("-     yes"));
    EXPECT_EQ(peers({"--json"}).events().at(0).at("can_wake"), true);
    pair({world.phoneRecord()});
    EXPECT_THAT(lastColumns(), ElementsAre("-     no"));
}

TEST_F(PeersCommandTest, RenamesAPhone) {
    const Ended ended = peers({"--json", "rename", "pixel", "  Kitchen  "});
    EXPECT_EQ(ended.status, 0) << ended.failure();
    ASSERT_EQ(ended.names(), std::vector<std::string>{"renamed"});
    EXPECT_EQ(ended.events()[0].at("peer").at("peer_hostname"), "Kitchen");
    EXPECT_EQ(ended.events()[0].at("earlier_name"), "Pixel-8");
    EXPECT_FALSE(ended.events()[0].at("peer").contains("peer_fcm_token"));
    EXPECT_EQ(book().peers.at(0).peer_hostname, "Kitchen");
    EXPECT_EQ(peers({"rename", "kitchen", "Pixel 8"}).output, "Kitchen is now called Pixel 8\n");
    EXPECT_EQ(peers({"rename", "nobody", "x"}).failure(), "orlinth: no paired phone matches 'nobody'");
    EXPECT_EQ(peers({"rename", "pixel", " "}).status, 2);
    EXPECT_EQ(peers({"rename", "pixel", "\xff"}).status, 2);
}

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
