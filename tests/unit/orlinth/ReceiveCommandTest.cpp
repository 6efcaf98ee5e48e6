#include "unit/orlinth/CommandWorld.h"

namespace orlinth::cli {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::uint16_t port = 7100;
constexpr const char* near = "192.168.1.7:40112";
constexpr const char* farAway = "8.8.8.8:40112";

class ReceiveCommandTest : public CommandWorldTest {
protected:
    Ended receive(std::vector<std::string> more = {}) {
        std::vector<std::string> words{"receive", "--from", phoneName, "--port", std::to_string(port), "--json"};
        words.insert(words.end(), more.begin(), more.end());
        return CommandWorldTest::run(makeReceiveCommand, words);
    }
    /// Connects after so many seconds, and says nothing until the end, whose instant it notes.
    [[nodiscard]] Task<> keepSilent(Seconds time, std::string endpoint) {
        co_await world.clock.sleep(time);
        world.network.sources.push_back(endpoint);
        const std::unique_ptr<platform::Stream> stream =
            co_await world.network.connect("203.0.113.1", port, world.context.get_executor());
        Bytes bytes(1);
        try {
            static_cast<void>(co_await stream->readExact(bytes));
        } catch (const Error&) {
            // the same
        }
        endedAt.push_back(world.clock.elapsed());
    }
    /// Connects after so many seconds, and hangs up in good order once this computer has proved its key, so many
    /// seconds later; `resets`: or not in good order.
    [[nodiscard]] Task<> look(Seconds time, Seconds thinks = 0s, bool resets = false) {
        co_await world.clock.sleep(time);
        world.network.sources.push_back(near);
        std::unique_ptr<platform::Stream> stream =
            co_await world.network.connect("203.0.113.1", port, world.context.get_executor());
        WireConnection wire(std::move(stream), world.clock);
        NoiseHandshake handshake(NoiseRole::initiator, world.phoneKey.clone(), asBytes(kOrlinthPrologue));
        const Bytes greeting = handshake.writeMessage({});
        co_await wire.sendLengthPrefixed(greeting);
        const Bytes answer = co_await wire.receiveLengthPrefixed();
        static_cast<void>(handshake.readMessage(answer));
        co_await world.clock.sleep(thinks);
        wire.resetOnClose(resets);
    }
    /// Proves its key a second after the beginning and hangs up a second later, though a file is due.
    [[nodiscard]] Task<> hangUpBehindTheProof() {
        co_await world.clock.sleep(1s);
        world.network.sources.push_back(near);
        const auto phone = co_await ScriptedPeer::connect(world, port, world.phoneKey);
        co_await world.clock.sleep(1s);
        EXPECT_FALSE(world.network.isOpen(port));
    }
    /// Sends a file after so many seconds.
    [[nodiscard]] Task<> send(Seconds time, std::string name, std::string content, std::string endpoint) {
        co_await world.clock.sleep(time);
        world.network.sources.push_back(endpoint);
        const auto phone = co_await ScriptedPeer::connect(world, port, world.phoneKey);
        co_await phone->send(Row::fileOffer(name, static_cast<std::int64_t>(content.size()), "text/plain", "ID-1"));
        const auto resume = co_await phone->expect<Row::Resume>();
        EXPECT_EQ(resume.accepted_offset, ByteOffset());
        co_await phone->sendBinary(toBytes(content));
        co_await phone->send(Row::done());
        const bool ended = co_await phone->seesTheEnd();
        EXPECT_TRUE(ended);
    }

    std::vector<double> endedAt;
};

TEST_F(ReceiveCommandTest, TakesOneFileAndEnds) {
    world.alongside(send(3s, "a.txt", "content", near));
    const Ended ended = receive();
    EXPECT_EQ(ended.status, 0) << testing::PrintToString(ended.errors);
    EXPECT_EQ(ended.after, 3);
    EXPECT_EQ(world.files.content("/home/ann/Downloads/a.txt"), "content");
    EXPECT_EQ(ended.names().front(), "listening");
    EXPECT_EQ(ended.names().back(), "complete");
}

TEST_F(ReceiveCommandTest, GivesUpWhenNobodyConnectsInTime) {
    const Ended ended = receive({"--timeout", "90.5"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.after, 90.5);
    EXPECT_THAT(ended.names(), ElementsAre("listening", "error"));
    EXPECT_EQ(ended.failure(), "orlinth: timed out");
}

TEST_F(ReceiveCommandTest, WaitsForEverUnlessToldOtherwise) {
    world.alongside(send(1'000'000s, "a.txt", "content", near));
    EXPECT_EQ(receive().after, 1'000'000);
}

TEST_F(ReceiveCommandTest, GivesWhoeverConnectsTenSecondsToProveAKey) {
    world.alongside(keepSilent(2s, near));
    const Ended ended = receive();
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.after, 12);
    EXPECT_EQ(ended.failure(), "orlinth: noise handshake failed: timed out after 10 seconds");
    fakes::runUntilIdle(world.context, world.clock);
    EXPECT_THAT(endedAt, ElementsAre(12));
}

TEST_F(ReceiveCommandTest, IsNotUsedUpByThoseWhoOnlyLook) {
    world.alongside(look(1s));
    world.alongside(look(2s));
    world.alongside(send(3s, "a.txt", "content", near));
    const Ended ended = receive();
    EXPECT_EQ(ended.status, 0) << testing::PrintToString(ended.errors);
    EXPECT_EQ(ended.after, 3);
    EXPECT_EQ(world.files.content("/home/ann/Downloads/a.txt"), "content");
    EXPECT_THAT(ended.names(), ElementsAre("listening", "complete"));
    EXPECT_EQ(ended.failure(), "");
    EXPECT_EQ(world.network.listens.size(), 1U) << "who comes between two connections must not be refused";
}

TEST_F(ReceiveCommandTest, TellsWhoWatchesThatItStillWaits) {
    world.alongside(look(1s));
    world.alongside(send(3s, "a.txt", "content", near));
    const Ended ended =
        CommandWorldTest::run(makeReceiveCommand, {"receive", "--from", phoneName, "--port", std::to_string(port)});
    EXPECT_EQ(ended.status, 0);
    EXPECT_THAT(ended.errors,
                ElementsAre("listening on port 7100", HasSubstr("connection from "),
                            "it hung up without proving a key; still waiting for Pixel-8",
                            HasSubstr("connection from "), HasSubstr("receiving a.txt"), HasSubstr("received ")));
}

TEST_F(ReceiveCommandTest, LetsThoseWaitWhoComeDuringALook) {
    world.alongside(look(1s, 5s));
    world.alongside(send(2s, "a.txt", "content", near));
    const Ended ended = receive();
    EXPECT_EQ(ended.status, 0) << testing::PrintToString(ended.errors);
    EXPECT_EQ(ended.after, 6);
}

TEST_F(ReceiveCommandTest, ALookGivesItNoMoreTime) {
    world.alongside(look(20s));
    const Ended ended = receive({"--timeout", "30"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.after, 30);
    EXPECT_EQ(ended.failure(), "orlinth: timed out");
}

TEST_F(ReceiveCommandTest, ALookThatOutlastsTheTimeEndsIt) {
    world.alongside(look(29s, 4s));
    const Ended ended = receive({"--timeout", "30"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.after, 33);
    EXPECT_EQ(ended.failure(), "orlinth: timed out");
}

TEST_F(ReceiveCommandTest, WhoBreaksOffHasNotOnlyLooked) {
    world.alongside(look(1s, 0s, true));
    const Ended ended = receive();
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.after, 1);
    EXPECT_THAT(ended.names(), ElementsAre("listening", "error"));
}

TEST_F(ReceiveCommandTest, ClosesItsPortOnceThePhoneIsThere) {
    world.alongside(hangUpBehindTheProof());
    const Ended ended = receive();
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.failure(), "orlinth: wire EOF before expected bytes");
}

TEST_F(ReceiveCommandTest, IsNotEndedBySomebodyFromFarAway) {
    world.alongside(keepSilent(1s, farAway));
    world.alongside(send(30s, "a.txt", "content", near));
    const Ended ended = receive();
    EXPECT_EQ(ended.status, 0) << testing::PrintToString(ended.errors);
    EXPECT_EQ(ended.after, 30);
    EXPECT_THAT(endedAt, ElementsAre(1));
}

TEST_F(ReceiveCommandTest, LetsEverybodyInIfItListensPublicly) {
    world.alongside(send(1s, "a.txt", "content", farAway));
    EXPECT_EQ(receive({"--listen-public"}).status, 0);
}

TEST_F(ReceiveCommandTest, WaitsForNobodyIfTheFileCouldNotBeKept) {
    world.files.setPermissions("/home/ann/Downloads", 0500);
    const Ended ended = receive();
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.after, 0);
    EXPECT_THAT(ended.names(), ElementsAre("error"));
}

TEST_F(ReceiveCommandTest, SaysWhichPortIsTaken) {
    const std::unique_ptr<platform::Listener> other =
        world.network.listen({.port = port, .keepAlive = std::nullopt}, world.context.get_executor());
    world.network.listenErrno = EADDRINUSE;
    const Ended ended = receive();
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.failure(), "orlinth: listener start failed: Address already in use");
    EXPECT_THAT(ended.errors.back(), HasSubstr("Another program is using port 7100"));
}

} // namespace
} // namespace orlinth::cli
