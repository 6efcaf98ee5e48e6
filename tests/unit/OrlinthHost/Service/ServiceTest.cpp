#include "OrlinthHost/Service/Service.h"

#include "OrlinthHost/Phones/AddressMemory.h"
#include "OrlinthHost/Phones/RemovedPeers.h"
#include "OrlinthHost/Service/History.h"
#include "OrlinthHost/Service/Presence.h"
#include "ServiceWorld.h"
#include "platform/Spawn.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <tuple>
#include <utility>

namespace orlinth::host {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

/// Answers after half a minute.
class SlowAsker final : public OfferAsker {
public:
    SlowAsker(fakes::World& world, bool (*isWanted)(const OfferView&))
        : isWanted_(isWanted), timer_(world.clock.makeTimer(world.context.get_executor())) {}

    bool ask(const OfferView& offer, Answer answer) override {
        asked.push_back(offer.name + " of " + offer.phone);
        timer_->arm(30s, [answer = std::move(answer), isWanted = isWanted_(offer)] { answer(isWanted); });
        return true;
    }
    void over(OfferNumber /*number*/, End /*end*/) override {}
    void nobodyIsThere() override {}

    std::vector<std::string> asked;

private:
    bool (*isWanted_)(const OfferView&);
    std::unique_ptr<platform::Timer> timer_;
};

class ServiceTest : public ServiceWorldTest {
protected:
    /// What a person can do about what run() has thrown.
    [[nodiscard]] std::string hint() const {
        try {
            std::rethrow_exception(error_);
        } catch (const HostError& error) {
            return error.hint();
        } catch (...) {
            return "";
        }
    }
    /// A phone takes a connection, which is in `stream` as long as it lasts, and shakes hands.
    [[nodiscard]] Task<std::unique_ptr<ScriptedPeer>> acceptOnTheTablet(platform::Stream*& stream) {
        const std::unique_ptr<platform::Listener> listener =
            world_.network.listen({.port = tabletPort, .keepAlive = std::nullopt}, world_.context.get_executor());
        std::unique_ptr<platform::Stream> accepted = co_await listener->accept(world_.context.get_executor());
        stream = accepted.get();
        auto wire = std::make_unique<WireConnection>(std::move(accepted), world_.clock);
        NoiseHandshake handshake(NoiseRole::responder, tabletKey_.clone(), asBytes(kOrlinthPrologue));
        co_await exchangeAsResponder(*wire, handshake);
        co_return std::make_unique<ScriptedPeer>(std::move(wire), std::move(handshake).finalize());
    }
    [[nodiscard]] Task<> takeOnePieceOnTheTablet() {
        platform::Stream* stream = nullptr;
        const auto tablet = co_await acceptOnTheTablet(stream);
        const auto offer = co_await tablet->expect<Row::FileOffer>();
        transferId_ = offer.transfer_id;
        co_await tablet->send(Row::resume(offer.transfer_id, ByteOffset()));
        const DecodedFrame piece = co_await tablet->receive();
        tabletHas_ = static_cast<std::int64_t>(std::get<Bytes>(piece).size());
        stream->abort();
    }
    [[nodiscard]] Task<> takeTheRestOnTheTablet() {
        platform::Stream* stream = nullptr;
        const auto tablet = co_await acceptOnTheTablet(stream);
        const auto offer = co_await tablet->expect<Row::FileOffer>();
        EXPECT_EQ(transferId_, offer.transfer_id);
        co_await tablet->send(Row::resume(offer.transfer_id, ByteOffset(tabletHas_)));
        const Bytes rest = co_await tablet->receiveUntilDone();
        tabletHas_ += static_cast<std::int64_t>(rest.size());
        tablet->close();
    }
    /// While the events are being finished: what is over by then, and what is not.
    [[nodiscard]] Task<> seeTheRestAtTheEnd(const int& alive) {
        EXPECT_FALSE(world_.unixSockets.isOpen(controlPath));
        EXPECT_TRUE(world_.files.isLocked(dataFolder / "service.lock"));
        const int before = alive;
        co_await world_.clock.sleep(10s);
        EXPECT_LT(before, alive) << "that it is alive is said until the last moment";
        EXPECT_TRUE(outboxEvents_.of(What::waiting).empty()) << "the send was cut off, which is no failure";
    }

    static constexpr std::uint16_t tabletPort = 7002;
    [[nodiscard]] History history() { return {world_.files, world_.clock, world_.log, home_.dataDirectory()}; }

    platform::PrivateKey tabletKey_ = platform::PrivateKey::generate();
    std::string transferId_;     ///< of what the tablet was offered first
    std::int64_t tabletHas_ = 0; ///< bytes
};

// Receiving

TEST_F(ServiceTest, APhoneDeliversAFile) {
    start();
    deliver("a.txt");
    EXPECT_EQ("content of a.txt", received("a.txt"));
    EXPECT_THAT(events_.all, ElementsAre("known 1", "listening 7100, phones 1", "authenticated Pixel-8, phones 1",
                                         "file a.txt from Pixel-8"));
    EXPECT_THAT(events_.failures, IsEmpty());
}

TEST_F(ServiceTest, LooksForThreadsThatHangSeldomWhileItIsIdleAndOftenWhileAFileComes) {
    start();
    pass(200s);
    std::size_t before = world_.queues.looks;
    pass(600s);
    EXPECT_EQ(10U, world_.queues.looks - before);
    const auto from = phone();
    world_.run(from->send(Row::fileOffer("film", 8, "text/plain", "ID")));
    static_cast<void>(world_.run(from->expect<Row::Resume>()));
    before = world_.queues.looks;
    pass(10s);
    EXPECT_GE(world_.queues.looks - before, 19U);
}

TEST_F(ServiceTest, WritesDownWhatCameWhatWentAndWhatDidNot) {
    start();
    deliver("a.txt");
    world_.alongside(take());
    share("b.txt");
    ring();
    pass(1s);
    const auto from = phone();
    world_.run(from->send(Row::fileOffer("c.txt", 11, "text/plain", "ID")));
    static_cast<void>(world_.run(from->expect<Row::Resume>()));
    from->close();
    settle();
    pass(1s);
    const std::vector<HistoryEntry> entries = history().load();
    ASSERT_EQ(3U, entries.size());
    EXPECT_EQ("a.txt", entries[0].file);
    EXPECT_EQ(HistoryEntry::Direction::in, entries[0].direction);
    EXPECT_EQ(HistoryEntry::Outcome::done, entries[0].outcome);
    EXPECT_EQ((downloads / "a.txt").string(), entries[0].path);
    EXPECT_EQ(world_.phoneRecord().peer_pubkey, entries[0].peerKey);
    EXPECT_EQ("Pixel-8", entries[0].phone);
    EXPECT_EQ(16, entries[0].size);
    EXPECT_EQ("b.txt", entries[1].file);
    EXPECT_EQ(HistoryEntry::Direction::out, entries[1].direction);
    EXPECT_EQ("c.txt", entries[2].file);
    EXPECT_EQ(HistoryEntry::Outcome::failed, entries[2].outcome);
    EXPECT_NE("", entries[2].problem);
    stop();
}

TEST_F(ServiceTest, WritesNothingDownIfItIsNotWanted) {
    settings_.keepsHistory = false;
    start();
    deliver("a.txt");
    stop();
    EXPECT_FALSE(world_.files.exists(home_.dataDirectory() / History::fileName));
}

TEST_F(ServiceTest, APhoneDeliversAText) {
    start();
    const auto from = phone();
    world_.run(from->send(Row::clipboard("correct horse", "text/plain")));
    settle();
    ASSERT_EQ(1U, events_.texts.size());
    EXPECT_EQ("correct horse", events_.texts[0].text);
}

TEST_F(ServiceTest, AnUnknownKeyIsRefused) {
    start();
    const auto stranger = connectAs(platform::PrivateKey::generate());
    EXPECT_TRUE(world_.run(stranger->seesTheEnd()));
    settle();
    EXPECT_EQ(1U, events_.failures.size());
    EXPECT_THAT(events_.all, ElementsAre("known 1", "listening 7100, phones 1")) << "nobody was authenticated";
}

TEST_F(ServiceTest, APhoneCountsFromTheMomentItIsRecorded) {
    pair({});
    start();
    EXPECT_EQ("known 0", events_.all.front());
    EXPECT_TRUE(world_.run(phone()->seesTheEnd()));
    settle();
    EXPECT_THAT(events_.failures, ElementsAre(HasSubstr("remote pubkey")));
    pair({world_.phoneRecord()});
    deliver("a.txt");
    EXPECT_EQ("content of a.txt", received("a.txt"));
    EXPECT_EQ("Pixel-8", events_.files.at(0).from);
}

TEST_F(ServiceTest, AStoreThatBecomesRubbishLeavesThePhonesThatWereKnown) {
    const auto reports = [this] {
        return std::ranges::count_if(events_.all,
                                     [](const std::string& text) { return text.starts_with("unreadable: "); });
    };
    start();
    const std::string good = world_.files.content(dataFolder / "peer.json").value();
    world_.files.put(dataFolder / "peer.json", "{nonsense");
    for (const char* name : {"a.txt", "b.txt"}) {
        deliver(name);
        EXPECT_EQ("content of " + std::string(name), received(name));
        EXPECT_EQ(Receiver::unknownPeer, events_.files.back().from);
    }
    EXPECT_EQ(1, reports()) << "once for each change";
    world_.files.put(dataFolder / "peer.json", "{other nonsense");
    deliver("c.txt");
    EXPECT_EQ("content of c.txt", received("c.txt"));
    EXPECT_EQ(2, reports());
    EXPECT_EQ("{other nonsense", world_.files.content(dataFolder / "peer.json"));
    world_.files.put(dataFolder / "peer.json", good);
    deliver("d.txt");
    EXPECT_EQ("Pixel-8", events_.files.back().from);
    PeerRecord tablet = world_.phoneRecord();
    const platform::PrivateKey tabletKey = platform::PrivateKey::generate();
    tablet.peer_pubkey = tabletKey.publicKey().peerKey();
    tablet.peer_hostname = "Tablet";
    pair({world_.phoneRecord(), tablet});
    world_.run(deliverOn(*connectAs(tabletKey), "e.txt"));
    settle();
    EXPECT_EQ("Tablet", events_.files.back().from);
}

TEST_F(ServiceTest, EachConnectionOfAPhoneThatBreaksIsReported) {
    start();
    for (std::size_t i = 1; i <= 7; ++i) {
        const auto from = phone();
        world_.run(from->send(Row::fileOffer("a.txt", 10, "text/plain", "ID")));
        static_cast<void>(world_.run(from->expect<Row::Resume>()));
        from->close();
        settle();
        EXPECT_EQ(i, events_.failures.size());
    }
    deliver("b.txt");
    EXPECT_EQ("content of b.txt", received("b.txt"));
}

TEST_F(ServiceTest, ADiskThatIsFullOrReadOnlyEndsOneFileAndNotTheService) {
    settings_.downloadLimits.keepFreeBytes = 0;
    start();
    for (const auto& [operation, number, reason] :
         {std::tuple(fakes::Operation::write, ENOSPC, "No space left on device"),
          std::tuple(fakes::Operation::open, EROFS, "Read-only file system")}) {
        world_.files.addFault({.operation = operation, .errorNumber = number, .nameEnding = "a.txt.partial"});
        events_.failures.clear();
        const auto from = phone();
        world_.run(from->send(Row::fileOffer("a.txt", 4, "text/plain", "ID")));
        try {
            static_cast<void>(world_.run(from->expect<Row::Resume>()));
            world_.run(from->sendBinary(toBytes(std::string("half"))));
            world_.run(from->send(Row::done()));
        } catch (const WireConnection::Error&) {
            // it has ended the connection
        }
        settle();
        EXPECT_THAT(events_.failures, ElementsAre(HasSubstr(reason)));
        EXPECT_FALSE(world_.files.exists(downloads / "a.txt"));
        world_.files.clearFaults();
        deliver("b.txt");
        EXPECT_EQ("content of b.txt", received("b.txt"));
    }
}

TEST_F(ServiceTest, APhoneRemovesThisComputer) {
    world_.network.makeSilent("203.0.113.2"); // it cannot be reached
    share("a.txt");
    start();
    pass(1s);
    ASSERT_THAT(world_.files.content(container / "peers.json").value_or(""), HasSubstr("Pixel-8"));
    const auto from = phone();
    world_.run(from->send(Row::unpair()));
    pass(1s);
    EXPECT_THAT(paired(), IsEmpty());
    ASSERT_EQ(1U, events_.outcomes.size());
    EXPECT_TRUE(std::get<Receiver::Unpair>(events_.outcomes[0]).isForgotten);
    EXPECT_THAT(world_.files.content(container / "peers.json").value_or(""), testing::Not(HasSubstr("Pixel-8")))
        << "the share sheet does not offer it any more";
    world_.folders.change(dataFolder); // the peer store has changed
    pass(1s);
    ASSERT_EQ(1U, outboxEvents_.of(What::phoneFailed).size()) << "nothing is sent to it any more";
    EXPECT_THAT(outboxEvents_.of(What::phoneFailed)[0].message, HasSubstr("is not paired any more"));
    const auto again = phone();
    EXPECT_TRUE(world_.run(again->seesTheEnd())) << "it counts as a stranger";
}

TEST_F(ServiceTest, ARemovedPhoneIsTold) {
    RemovedPeers(world_.files, dataFolder).add(world_.phoneKey.publicKey());
    pair({});
    start();
    const auto from = phone();
    static_cast<void>(world_.run(from->expect<Row::Unpair>()));
    from->close();
    pass(1s);
    ASSERT_EQ(1U, events_.outcomes.size());
    EXPECT_EQ(world_.phoneKey.publicKey().peerKey(), std::get<Receiver::UnpairReplied>(events_.outcomes[0]).peerKey);
    EXPECT_EQ(0, events_.count("authenticated Pixel-8, phones 0"));
}

TEST_F(ServiceTest, ConnectionsFromAfarAreTurnedAwayUnlessTheyAreWanted) {
    start();
    world_.network.sources.emplace_back("8.8.8.8:53");
    const std::unique_ptr<platform::Stream> stream =
        world_.run(world_.network.connect("203.0.113.1", port, world_.context.get_executor()));
    EXPECT_EQ("Connection reset by peer", world_.failure<platform::SystemError>(readLine(*stream)).description());
    EXPECT_EQ(1, events_.count("turned away 8.8.8.8:53"));
    stop();
    settings_.port.isPublic = true;
    start();
    world_.network.sources.emplace_back("8.8.8.8:53");
    const auto from = world_.run(ScriptedPeer::connect(world_, port, world_.phoneKey));
    world_.run(deliverOn(*from, "a.txt"));
    EXPECT_EQ("content of a.txt", received("a.txt"));
}

// What is taken

TEST_F(ServiceTest, TakesNothingIfNothingIsAccepted) {
    settings_.accept = ServiceSettings::Accept::never;
    world_.files.addFault({.operation = fakes::Operation::open, .errorNumber = EROFS, .nameEnding = ".tmp"});
    start();
    world_.files.clearFaults();
    ASSERT_EQ("", problem()) << "a folder that cannot be written is of no interest";
    const auto from = phone();
    world_.run(from->send(Row::fileOffer("a.txt", 3, "text/plain", "ID")));
    static_cast<void>(world_.run(from->expect<Row::Decline>()));
    from->close();
    settle();
    ASSERT_EQ(1U, events_.outcomes.size());
    EXPECT_EQ("a.txt", std::get<Receiver::Declined>(events_.outcomes[0]).name);
}

TEST_F(ServiceTest, TakesWhatSomebodySaysYesTo) {
    settings_.accept = ServiceSettings::Accept::ask;
    const auto isWanted = [](const OfferView& offer) { return offer.name == "a.txt"; };
    SlowAsker asker(world_, isWanted);
    settings_.asker = &asker;
    start();
    deliver("a.txt");
    EXPECT_EQ(30, world_.clock.elapsed());
    EXPECT_EQ("content of a.txt", received("a.txt"));
    const auto from = phone();
    world_.run(from->send(Row::fileOffer("b.txt", 3, "text/plain", "ID")));
    static_cast<void>(world_.run(from->expect<Row::Decline>()));
    EXPECT_THAT(asker.asked, ElementsAre("a.txt of Pixel-8", "b.txt of Pixel-8"));
}

TEST_F(ServiceTest, DeclinesWhatIsLargerThanTheLimit) {
    settings_.downloadLimits.maxFileBytes = 10;
    start();
    const auto from = phone();
    world_.run(from->send(Row::fileOffer("a.txt", 11, "text/plain", "ID")));
    static_cast<void>(world_.run(from->expect<Row::Decline>()));
    from->close();
    settle();
    ASSERT_EQ(1U, events_.outcomes.size());
    const auto& declined = std::get<Receiver::Declined>(events_.outcomes[0]);
    ASSERT_TRUE(declined.refusal);
    EXPECT_EQ(DownloadRefusal::Reason::tooLarge, declined.refusal->reason);
}

// Sending

TEST_F(ServiceTest, SendsWhatIsInTheOutbox) {
    start();
    pass(1s);
    world_.alongside(take());
    share("a.txt");
    ring();
    pass(1s);
    EXPECT_THAT(taken_, ElementsAre("content of a.txt"));
    EXPECT_EQ(1U, outboxEvents_.of(What::sent).size());
    EXPECT_FALSE(world_.files.exists(outbox / batch));
}

TEST_F(ServiceTest, ListsThePhoneFirstThatItHasSentSomethingToLast) {
    PeerRecord tablet = world_.phoneRecord();
    tablet.peer_pubkey = tabletKey_.publicKey().peerKey();
    tablet.peer_hostname = "Tablet";
    tablet.paired_at_epoch_ms += 1s;
    pair({world_.phoneRecord(), tablet});
    start();
    pass(100s);
    const auto firstShown = [this] {
        return ShareOutbox(world_.files, world_.system.directories).readPeers().at(0).hostname;
    };
    const auto from = phone();
    pass(1s);
    ASSERT_EQ(firstShown(), "Tablet") << "paired last";
    world_.alongside(take());
    share("a.txt", {{world_.phoneRecord().peer_pubkey}});
    ring();
    pass(1s);
    ASSERT_THAT(taken_, ElementsAre("content of a.txt"));
    EXPECT_EQ(firstShown(), "Pixel-8");
}

TEST_F(ServiceTest, SendsAtOnceToAPhoneThatIsHeardOf) {
    share("a.txt");
    start();
    pass(1000s); // in the middle of a long pause
    ASSERT_FALSE(outboxEvents_.of(What::waiting).empty());
    world_.alongside(take());
    deliver("b.txt");
    pass(100ms);
    EXPECT_THAT(taken_, ElementsAre("content of a.txt"));
}

TEST_F(ServiceTest, SendsAtOnceToAPhoneWhoseRecordChanges) {
    share("a.txt");
    world_.network.makeFailWithErrno("203.0.113.2", EHOSTUNREACH, world_.clock);
    start();
    pass(1000s);
    world_.alongside(take());
    PeerRecord moved = world_.phoneRecord();
    moved.peer_ip = "203.0.113.9";
    pair({moved});
    world_.folders.change(dataFolder);
    pass(100ms);
    EXPECT_THAT(taken_, ElementsAre("content of a.txt"));
}

TEST_F(ServiceTest, SendsAtOnceInAnotherNetwork) {
    share("a.txt");
    start();
    pass(1000s);
    world_.alongside(take());
    world_.interfaces.addresses = {fakes::FakeNetworkInterfaces::ipv4("wlan0", {192, 168, 7, 10})};
    world_.networkNews.tell();
    pass(3s);
    EXPECT_THAT(taken_, ElementsAre("content of a.txt"));
}

TEST_F(ServiceTest, OnePhonesSuccessLeavesAnotherItsResume) {
    constexpr std::int64_t size = 5 << 20;
    PeerRecord tablet = world_.phoneRecord();
    tablet.peer_pubkey = tabletKey_.publicKey().peerKey();
    tablet.peer_hostname = "Tablet";
    tablet.peer_port = tabletPort;
    pair({world_.phoneRecord(), tablet});
    share("a.bin", {{world_.phoneRecord().peer_pubkey, tablet.peer_pubkey}});
    world_.files.put(outbox / batch / "a.bin", std::string(size, 'x'));
    world_.alongside(take());
    world_.alongside(takeOnePieceOnTheTablet());
    start();
    pass(1s);
    ASSERT_THAT(taken_, testing::SizeIs(1));
    ASSERT_GT(tabletHas_, 0);
    ASSERT_EQ(1U, outboxEvents_.of(What::waiting).size());
    EXPECT_EQ("Tablet", outboxEvents_.of(What::waiting)[0].to);
    EXPECT_TRUE(world_.files.exists(outbox / batch / "a.bin"));
    const std::int64_t before = tabletHas_;
    world_.alongside(takeTheRestOnTheTablet());
    pass(10s);
    EXPECT_EQ(size, tabletHas_);
    const auto sent = outboxEvents_.of(What::sent);
    ASSERT_EQ(2U, sent.size()) << "the phone gets nothing twice";
    EXPECT_EQ("Tablet", sent[1].to);
    EXPECT_EQ(ByteOffset(before), sent[1].resumedFromOffset);
    EXPECT_FALSE(world_.files.exists(outbox / batch));
    EXPECT_THAT(taken_, testing::SizeIs(1));
}

// What it looks after

TEST_F(ServiceTest, KeepsTheShareSheetsListInStep) {
    start();
    pass(1s);
    PeerRecord tablet = world_.phoneRecord();
    tablet.peer_pubkey = platform::PrivateKey::generate().publicKey().peerKey();
    tablet.peer_hostname = "Tablet";
    pair({world_.phoneRecord(), tablet});
    world_.folders.change(dataFolder);
    pass(100ms);
    EXPECT_THAT(world_.files.content(container / "peers.json").value_or(""), HasSubstr("Tablet"));
}

TEST_F(ServiceTest, RemembersWhereAPhoneCameFromUntilItUnpairs) {
    const auto known = [this] {
        return AddressMemory(world_.files, world_.clock, world_.log, dataFolder)
            .addressesOf(world_.phoneRecord().peer_pubkey);
    };
    start();
    deliver("a.txt");
    ASSERT_EQ(1U, known().size());
    EXPECT_EQ("192.168.1.7", known()[0].host.text());
    EXPECT_THAT(PeerStore(world_.files, world_.system.directories).loadBook().peers, ElementsAre(world_.phoneRecord()));
    const auto from = phone();
    world_.run(from->send(Row::unpair()));
    world_.folders.change(dataFolder); // the peer store has changed
    pass(100ms);
    EXPECT_THAT(known(), IsEmpty());
}

TEST_F(ServiceTest, TellsTheShareSheetWhenAPhoneWasReached) {
    const auto list = [this] { return world_.files.content(container / "peers.json").value_or(""); };
    start();
    pass(1s);
    EXPECT_THAT(list(), HasSubstr("203.0.113.2"));
    world_.alongside(take());
    share("a.txt");
    ring();
    pass(60s);
    ASSERT_THAT(taken_, ElementsAre("content of a.txt"));
    EXPECT_THAT(list(), HasSubstr("last here "));
}

TEST_F(ServiceTest, SaysThatAPhoneThatWentOutOfRangeWasThereWhenItLastSentSomething) {
    start();
    const auto from = phone();
    const std::string then = std::to_string(toNumber(world_.clock.epochMilliseconds()));
    pass(Receiver::idleTimeout + 1s); // until it is given up
    const std::string request = R"({"request":"presence"})"
                                "\n";
    EXPECT_THAT(ask(request), HasSubstr(R"("seen_epoch_ms":)" + then + R"(,"state":"here")"));
    pass(Presence::hereAfterProof - Receiver::idleTimeout);
    EXPECT_THAT(ask(request), HasSubstr(R"("seen_epoch_ms":)" + then + R"(,"state":"away")"));
}

TEST_F(ServiceTest, SaysWhichPhonesAreThere) {
    const std::string request = R"({"request":"presence"})"
                                "\n";
    const auto answer = [this](const char* state, const std::string& seen) {
        return R"({"phones":[{"can_wake":false,"peer_pubkey":")" + world_.phoneRecord().peer_pubkey.text() +
               R"(","seen_epoch_ms":)" + seen + R"(,"state":")" + state + R"("}]})";
    };
    start();
    EXPECT_EQ(answer("unknown", "0"), ask(request));
    {
        const auto from = phone();
        pass(20s);
        EXPECT_THAT(ask(request), HasSubstr(R"("state":"here")")) << "it is connected";
        from->close();
        settle();
    }
    const std::string left = std::to_string(toNumber(world_.clock.epochMilliseconds()));
    pass(119s);
    EXPECT_EQ(answer("here", left), ask(request));
    pass(2s);
    EXPECT_EQ(answer("away", left), ask(request));
    share("a.txt");
    ring();
    pass(60s); // nobody listens at its port
    EXPECT_EQ(answer("asleep", left), ask(request));
    world_.interfaces.addresses = {fakes::FakeNetworkInterfaces::ipv4("wlan0", {192, 168, 7, 10})};
    world_.network.makeSilent("203.0.113.2");
    world_.networkNews.tell();
    pass(2s);
    EXPECT_EQ(answer("unknown", left), ask(request));
    stop();
    start();
    EXPECT_THAT(ask(request), HasSubstr(R"("state":"unknown")"));
    EXPECT_THAT(ask(request), testing::Not(HasSubstr(R"("seen_epoch_ms":0)"))) << "that is remembered";
}

TEST_F(ServiceTest, SaysThatAPhoneIsThereThatHasTakenAFile) {
    world_.alongside(take());
    share("a.txt");
    start();
    pass(1s);
    EXPECT_THAT(taken_, ElementsAre("content of a.txt"));
    EXPECT_THAT(ask(R"({"request":"presence"})"
                    "\n"),
                HasSubstr(R"("state":"here")"));
}

TEST_F(ServiceTest, SaysToWhoeverManagesItThatItIsAlive) {
    int alive = 0;
    settings_.watchdogInterval = 30s;
    settings_.watchdog.onAlive = [&alive] { ++alive; };
    start();
    pass(60s);
    EXPECT_GE(alive, 4);
    const int before = alive;
    stop();
    EXPECT_GE(before + 1, alive);
}

TEST_F(ServiceTest, ReportsUnfinishedDownloadsOfItsFolder) {
    start();
    const auto from = phone();
    world_.run(from->send(Row::fileOffer("a.txt", 10, "text/plain", "ID")));
    static_cast<void>(world_.run(from->expect<Row::Resume>()));
    world_.run(from->sendBinary(toBytes(std::string("half"))));
    settle();
    from->close(); // and nothing has come of it for long: files in memory are old
    pass(PartialsReminder::firstLookDelay - 1s);
    EXPECT_EQ(0, events_.count("unfinished 1 in /home/ann/Downloads"));
    pass(2s);
    EXPECT_EQ(1, events_.count("unfinished 1 in /home/ann/Downloads"));
}

// One a data folder

TEST_F(ServiceTest, ASecondOneOfTheSameDataFolderIsRefusedAndTheFirstGoesOn) {
    start();
    RecordingServiceEvents others;
    Service second(home_, world_.computerKey, *live_, settings_, others, outboxEvents_);
    const HostError error = world_.failure<HostError>([](Service& service) -> Task<bool> {
        co_await service.run();
        co_return true;
    }(second));
    EXPECT_EQ("the receive service is already running", error.description());
    EXPECT_THAT(error.hint(), HasSubstr("XDG_DATA_HOME"));
    EXPECT_THAT(others.all, IsEmpty());
    deliver("a.txt");
    EXPECT_EQ("content of a.txt", received("a.txt"));
}

TEST_F(ServiceTest, SomebodyWhoLooksWhetherItRunsDoesNotKeepItFromStarting) {
    world_.files.put(dataFolder / "service.lock", "");
    std::unique_ptr<platform::File> look = world_.files.open(dataFolder / "service.lock", platform::OpenMode::write);
    ASSERT_TRUE(look->tryLock());
    start();
    EXPECT_THAT(events_.all, IsEmpty()) << "it waits";
    pass(50ms);
    look.reset();
    world_.folders.change(dataFolder);
    pass(10ms);
    EXPECT_EQ(1, events_.count("listening 7100, phones 1"));
}

TEST_F(ServiceTest, AnotherOneRunsOnceTheFirstHasEnded) {
    start();
    stop();
    start();
    deliver("a.txt");
    EXPECT_EQ("content of a.txt", received("a.txt"));
    EXPECT_EQ("", problem());
}

// Starts that fail, and leave nothing behind

TEST_F(ServiceTest, DoesNotStartWithALockThatCannotBeOpened) {
    world_.files.addFault({.operation = fakes::Operation::open, .errorNumber = EACCES, .nameEnding = "service.lock"});
    start();
    EXPECT_EQ("cannot lock " + (dataFolder / "service.lock").string() + ": Permission denied", problem());
    EXPECT_EQ("Make this file and its folder writable for this account.", hint());
    world_.files.clearFaults();
}

TEST_F(ServiceTest, DoesNotStartWithAFolderThatCannotBeWritten) {
    world_.files.putFolder(downloads, 0500);
    start();
    EXPECT_EQ("cannot write to the folder for received files, /home/ann/Downloads: Permission denied", problem());
    EXPECT_FALSE(world_.network.isOpen(port));
    EXPECT_FALSE(world_.files.isLocked(dataFolder / "service.lock"));
}

TEST_F(ServiceTest, DoesNotPutFilesOfPhonesWhereProgramsLookForTheirs) {
    for (const char* folder : {"/home/ann/.config", "/home/ann/.local/share/Orlinth", "/home/ann"}) {
        settings_.downloads = folder;
        start();
        EXPECT_THAT(problem(), HasSubstr("received files cannot go to " + std::string(folder)));
    }
    EXPECT_FALSE(world_.network.isOpen(port));
}

TEST_F(ServiceTest, DoesNotStartWithoutItsPort) {
    const std::unique_ptr<platform::Listener> other =
        world_.network.listen({.port = port, .keepAlive = std::nullopt}, world_.context.get_executor());
    start();
    EXPECT_EQ("listener start failed: Address already in use", problem());
    EXPECT_THAT(events_.all, IsEmpty());
    EXPECT_FALSE(world_.files.isLocked(dataFolder / "service.lock"));
}

// Its end

TEST_F(ServiceTest, EndsInOrder) {
    world_.network.makeSilent("203.0.113.2");
    share("a.txt");
    int alive = 0;
    settings_.watchdogInterval = 1s;
    settings_.watchdog.onAlive = [&alive] { ++alive; };
    start();
    pass(1s); // a file is under way to a phone
    const auto from = phone();
    world_.run(from->send(Row::fileOffer("b.txt", 10, "text/plain", "ID")));
    static_cast<void>(world_.run(from->expect<Row::Resume>()));
    const std::unique_ptr<platform::Stream> asker = connectToControl();
    settle();
    events_.onStopping = [this] {
        EXPECT_FALSE(world_.network.isOpen(port));
        EXPECT_TRUE(world_.unixSockets.isOpen(controlPath));
    };
    events_.onFinish = [this, &alive] { return seeTheRestAtTheEnd(alive); };
    cancel();
    stop();
    EXPECT_EQ("", problem());
    EXPECT_EQ("stopping", events_.all.at(events_.all.size() - 2));
    EXPECT_EQ("finish", events_.all.back());
    EXPECT_TRUE(world_.run(from->seesTheEnd()));
    EXPECT_TRUE(world_.files.exists(downloads / "b.txt.partial")) << "it can be resumed";
    EXPECT_TRUE(world_.files.exists(outbox / batch / "a.txt"));
    EXPECT_FALSE(world_.files.isLocked(dataFolder / "service.lock"));
    EXPECT_EQ(0U, world_.clock.pendingAlarms()) << "nothing of it is left";
}

TEST_F(ServiceTest, EndsInTheSameOrderWhenItsPortFails) {
    share("a.txt");
    start();
    pass(1s);
    world_.network.acceptErrno = EBADF;
    static_cast<void>(world_.run(world_.network.connect("203.0.113.1", port, world_.context.get_executor())));
    pass(1s);
    EXPECT_TRUE(hasEnded_);
    EXPECT_THAT(problem(), HasSubstr("Bad file descriptor"));
    EXPECT_EQ("stopping", events_.all.at(events_.all.size() - 2));
    EXPECT_EQ("finish", events_.all.back());
    EXPECT_FALSE(world_.unixSockets.isOpen(controlPath));
    EXPECT_FALSE(world_.files.isLocked(dataFolder / "service.lock"));
    EXPECT_EQ(0U, world_.clock.pendingAlarms());
}

TEST_F(ServiceTest, OpensNothingIfItIsCancelledBeforeItHasBegun) {
    make();
    hasEnded_ = false;
    platform::spawn(world_.context.get_executor(), service_->run(), stop_.slot(),
                    [this](const std::exception_ptr& /*error*/) { hasEnded_ = true; });
    stop();
    EXPECT_THAT(world_.network.listens, IsEmpty());
    EXPECT_THAT(events_.all, IsEmpty());
    EXPECT_FALSE(world_.files.isLocked(dataFolder / "service.lock"));
}

TEST_F(ServiceTest, EndsAtOnceWhileItWaitsForItsLock) {
    world_.files.put(dataFolder / "service.lock", "");
    const std::unique_ptr<platform::File> look =
        world_.files.open(dataFolder / "service.lock", platform::OpenMode::read);
    ASSERT_TRUE(look->tryLock());
    start();
    EXPECT_FALSE(hasEnded_);
    stop();
    EXPECT_EQ("", problem());
    EXPECT_EQ(0, world_.clock.elapsed());
    EXPECT_THAT(events_.all, IsEmpty());
}

} // namespace
} // namespace orlinth::host
