#include "OrlinthHost/Sending/SendRun.h"

#include "base/Text.h"
#include "fakes/World.h"
#include "platform/Cancelled.h"
#include "platform/Deadline.h"
#include "platform/TaskGroup.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

namespace orlinth::host {
namespace {

using fakes::ScriptedPeer;
using Row = TransportMessage;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;

/// Notes what happens: "delivered a.txt to Pixel-8".
class Recorder final : public SendEvents {
public:
    void expected(std::size_t transfers, std::int64_t bytes) override {
        add("expected " + std::to_string(transfers) + " of " + std::to_string(bytes) + " bytes");
    }
    void began(const Transfer& transfer, const std::string& name, std::int64_t, const std::string&) override {
        EXPECT_EQ(name, lastPathComponent(transfer.path));
        add("began", transfer);
    }
    void connected(const Transfer& transfer) override { add("connected", transfer); }
    void moved(const Transfer& transfer) override { add("moved", transfer); }
    void waking(const Transfer& transfer) override { add("waking", transfer); }
    void authenticated(const Transfer& transfer) override { add("authenticated", transfer); }
    void progress(const Transfer& transfer, const Progress& progress) override {
        EXPECT_LE(progress.done, progress.total);
        progressed.push_back(transfer.number);
    }
    void endSent(const Transfer& transfer) override { add("endSent", transfer); }
    void again(const Transfer& transfer) override { add("again", transfer); }
    void putBack(const Transfer& transfer) override { add("putBack", transfer); }
    void delivered(const Transfer& transfer, const Delivered& delivered) override {
        EXPECT_EQ(delivered.sent.bytesSent, transfer.size);
        add("delivered", transfer);
    }
    void failed(const Transfer& transfer, const EndedAttempt& attempt, bool isInDoubt) override {
        add("failed", transfer);
        reasons.push_back(failureText(attempt) + (isInDoubt ? " (in doubt)" : ""));
    }

    [[nodiscard]] std::vector<std::string> of(const std::string& what) const {
        std::vector<std::string> found;
        std::ranges::copy_if(all, std::back_inserter(found),
                             [&what](const std::string& line) { return line.starts_with(what + " "); });
        return found;
    }

    std::vector<std::string> all;
    std::vector<std::string> reasons;
    std::vector<std::size_t> progressed;

private:
    void add(const std::string& line) { all.push_back(line); }
    void add(const std::string& what, const Transfer& transfer) {
        add(what + " " + lastPathComponent(transfer.path) + " to " + transfer.phone.peer_hostname);
    }
};

/// A phone at a port that takes any number of connections at once.
class Phone {
public:
    Phone(fakes::World& world, const platform::PrivateKey& key, std::uint16_t port)
        : world_(world), key_(key), port_(port), tasks_(world.context.get_executor()) {
        tasks_.add(listen(), [](const std::exception_ptr&) {});
    }
    /// Lets go of its port and of everything that is under way.
    void leave() { tasks_.cancelAll(); }

    /// Connections, as they come, that are ended before a word is said.
    std::function<bool(int number)> turnsAway = [](int) { return false; };
    /// Takes the first chunk of a file, resets the connection then, and goes on from there the next time.
    std::function<bool(int number)> breaksInTheMiddle = [](int) { return false; };
    /// Resets the connection behind the end of the file.
    std::function<bool(int number)> breaksOff = [](int) { return false; };
    /// What it answers to an offer instead of taking the file.
    std::optional<Row> answer;
    /// Seconds from the offer to the answer.
    Seconds thinks{0};
    std::map<int, Seconds> thinksLonger; ///< some connections

    std::vector<std::string> names;           ///< of what it has taken
    std::vector<std::string> ids;             ///< that were offered
    std::map<std::string, std::int64_t> held; ///< bytes of transfers that broke, by id
    std::vector<std::int64_t> resumedAt;      ///< where each connection went on
    int connections = 0;
    int most = 0; ///< at once

private:
    Task<> listen() {
        const std::unique_ptr<platform::Listener> listener =
            world_.network.listen({.port = port_, .keepAlive = std::nullopt}, world_.context.get_executor());
        for (;;) {
            std::unique_ptr<platform::Stream> stream = co_await listener->accept(world_.context.get_executor());
            tasks_.add(converse(std::move(stream), connections++), [this](const std::exception_ptr&) { --open_; });
            most = std::max(most, ++open_);
        }
    }
    Task<> converse(std::unique_ptr<platform::Stream> stream, int number) {
        auto* const raw = dynamic_cast<fakes::MemoryStream*>(stream.get());
        auto wire = std::make_unique<WireConnection>(std::move(stream), world_.clock);
        if (turnsAway(number)) {
            wire->abort();
            co_return;
        }
        NoiseHandshake handshake(NoiseRole::responder, key_.clone(), asBytes(kOrlinthPrologue));
        co_await exchangeAsResponder(*wire, handshake);
        ScriptedPeer peer(std::move(wire), std::move(handshake).finalize());
        const auto offer = co_await peer.expect<Row::FileOffer>();
        ids.push_back(offer.transfer_id);
        const auto longer = thinksLonger.find(number);
        co_await world_.clock.sleep(longer != thinksLonger.end() ? longer->second : thinks);
        if (answer) {
            co_await peer.send(*answer);
            static_cast<void>(co_await peer.seesTheEnd());
            co_return;
        }
        std::int64_t& has = held[offer.transfer_id];
        resumedAt.push_back(has);
        co_await peer.send(Row::resume(offer.transfer_id, ByteOffset(has)));
        if (breaksInTheMiddle(number)) {
            const DecodedFrame piece = co_await peer.receive();
            has += static_cast<std::int64_t>(std::get<Bytes>(piece).size());
            raw->abort();
            co_return;
        }
        const Bytes data = co_await peer.receiveUntilDone();
        if (breaksOff(number)) {
            raw->abort();
            co_return;
        }
        names.push_back(offer.name);
        peer.close();
    }

    fakes::World& world_;
    const platform::PrivateKey& key_;
    std::uint16_t port_;
    platform::TaskGroup tasks_;
    int open_ = 0;
};

class SendRunTest : public testing::Test {
protected:
    ~SendRunTest() override {
        phone_.reset();
        tablet_.reset();
        fakes::runUntilIdle(world_.context, world_.clock);
    }

    void phoneListens() { phone_.emplace(world_, world_.phoneKey, fakes::World::phonePort); }
    void tabletListens() { tablet_.emplace(world_, tabletKey_, tabletPort); }
    [[nodiscard]] PeerRecord tabletRecord() const {
        PeerRecord record = world_.phoneRecord();
        record.peer_pubkey = tabletKey_.publicKey().peerKey();
        record.peer_hostname = "Tablet";
        record.peer_port = tabletPort;
        return record;
    }
    /// "/home/ann/0.txt" and so on, of ten bytes each.
    [[nodiscard]] std::vector<std::string> files(int count) {
        std::vector<std::string> paths;
        for (int i = 0; i < count; ++i) {
            paths.push_back("/home/ann/" + std::to_string(i) + ".txt");
            world_.files.put(paths.back(), "content " + std::to_string(i % 10) + "\n");
        }
        return paths;
    }
    int send(std::vector<std::string> paths, std::vector<PeerRecord> phones) {
        make(std::move(paths), std::move(phones));
        return world_.run(run_->run());
    }
    int send(std::vector<std::string> paths) { return send(std::move(paths), {world_.phoneRecord()}); }
    void make(std::vector<std::string> paths, std::vector<PeerRecord> phones) {
        run_.emplace(home_, world_.computerKey, journal_, SendTimes{}, std::move(paths), std::move(phones), told_);
    }
    /// Runs until it is cancelled, so many seconds from now.
    void sendUntil(Seconds time) {
        const auto cancelled = [this, time]() -> Task<bool> {
            return platform::endsWithin(world_.clock, time, discard(run_->run()));
        };
        EXPECT_FALSE(world_.run(cancelled()));
    }
    static Task<> discard(Task<int> task) { static_cast<void>(co_await std::move(task)); }

    static constexpr std::uint16_t tabletPort = 7002;
    fakes::World world_;
    platform::PrivateKey tabletKey_ = platform::PrivateKey::generate();
    Home home_{world_.system, world_.context.get_executor()};
    InFlightJournal journal_{world_.files, world_.system.directories};
    Recorder told_;
    std::optional<Phone> phone_;
    std::optional<Phone> tablet_;
    std::optional<SendRun> run_;
};

TEST_F(SendRunTest, TellsOneFilesWayInItsOrder) {
    phoneListens();
    EXPECT_EQ(send(files(1)), 0);
    EXPECT_THAT(told_.all, ElementsAre("expected 1 of 10 bytes", "began 0.txt to Pixel-8", "connected 0.txt to Pixel-8",
                                       "authenticated 0.txt to Pixel-8", "endSent 0.txt to Pixel-8",
                                       "delivered 0.txt to Pixel-8"));
    EXPECT_THAT(journal_.snapshotEntries(), IsEmpty());
}

TEST_F(SendRunTest, SendsManyFilesOverSeveralConnections) {
    phoneListens();
    phone_->thinks = 1s;
    EXPECT_EQ(send(files(40)), 0);
    EXPECT_THAT(phone_->names, SizeIs(40));
    EXPECT_EQ(phone_->most, PhoneLanes::most);
    EXPECT_THAT(told_.of("delivered"), SizeIs(40));
    EXPECT_THAT(journal_.snapshotEntries(), IsEmpty());
    EXPECT_LT(world_.clock.elapsed(), 10);
}

TEST_F(SendRunTest, SendsToEveryPhoneAndKeepsAnIdUntilTheLastHasTheFile) {
    phoneListens();
    tabletListens();
    tablet_->thinks = 3s;
    EXPECT_EQ(send(files(1), {world_.phoneRecord(), tabletRecord()}), 0);
    EXPECT_THAT(told_.of("delivered"), ElementsAre("delivered 0.txt to Pixel-8", "delivered 0.txt to Tablet"));
    EXPECT_EQ(phone_->ids, tablet_->ids);
    EXPECT_THAT(journal_.snapshotEntries(), IsEmpty());
}

TEST_F(SendRunTest, OnePhoneThatIsNotThereKeepsTheOtherFromNothing) {
    tabletListens();
    EXPECT_EQ(send(files(3), {world_.phoneRecord(), tabletRecord()}), 3);
    EXPECT_THAT(told_.of("delivered"), SizeIs(3));
    EXPECT_THAT(told_.reasons, testing::Each("network: Connection refused"));
    EXPECT_THAT(journal_.snapshotEntries(), SizeIs(3)) << "for the next time";
}

TEST_F(SendRunTest, TriesAgainAloneWhatFailedAmongOthers) {
    phoneListens();
    phone_->thinks = 1s;
    phone_->turnsAway = [](int number) { return number == 2; };
    EXPECT_EQ(send(files(12)), 0);
    EXPECT_THAT(told_.of("putBack"), ElementsAre("putBack 2.txt to Pixel-8"));
    EXPECT_THAT(phone_->names, SizeIs(12));
    EXPECT_EQ(phone_->most, 2) << "then one, until nine more were taken";
}

TEST_F(SendRunTest, GoesOnAloneWithWhatBrokeInTheMiddleAmongOthers) {
    phoneListens();
    phone_->thinks = 1s;
    phone_->breaksInTheMiddle = [](int number) { return number == 2; };
    std::vector<std::string> paths = files(3);
    world_.files.put(paths[1], std::string(2'000'000, 'y'));
    world_.files.put(paths[2], std::string(2'000'000, 'x'));
    EXPECT_EQ(send(paths), 0);
    EXPECT_THAT(told_.of("putBack"), SizeIs(1));
    EXPECT_THAT(told_.of("delivered"), SizeIs(3));
    EXPECT_THAT(phone_->resumedAt, ElementsAre(0, 0, 0, 1'048'576));
    EXPECT_THAT(journal_.snapshotEntries(), IsEmpty());
}

TEST_F(SendRunTest, FailsAFileThatBreaksInTheMiddleAlone) {
    phoneListens();
    phone_->breaksInTheMiddle = [](int number) { return number == 0; };
    world_.files.put("/home/ann/a.bin", std::string(2'000'000, 'x'));
    EXPECT_EQ(send({"/home/ann/a.bin"}), 1);
    EXPECT_THAT(told_.of("putBack"), IsEmpty());
    EXPECT_THAT(journal_.snapshotEntries(), SizeIs(1)) << "for the next time";
}

TEST_F(SendRunTest, CountsWhatWaitsForAnotherAttemptAsCutShortWhenItIsCancelled) {
    phoneListens();
    phone_->thinks = 1s;
    phone_->breaksInTheMiddle = [](int number) { return number == 2; };
    std::vector<std::string> paths = files(4);
    world_.files.put(paths[2], std::string(2'000'000, 'x'));
    phone_->thinksLonger[1] = 100s; // so that the one that broke waits for its turn
    make(paths, {world_.phoneRecord()});
    sendUntil(50s);
    EXPECT_THAT(told_.of("delivered"), SizeIs(1));
    EXPECT_THAT(told_.of("putBack"), SizeIs(1));
    EXPECT_THAT(run_->interruption().cutShort, ElementsAre(testing::Field(&SendEvents::Transfer::size, 10),
                                                           testing::Field(&SendEvents::Transfer::size, 2'000'000)));
    EXPECT_EQ(run_->interruption().notBegun, 1U);
    EXPECT_THAT(journal_.snapshotEntries(), SizeIs(3)) << "for the next time";
}

TEST_F(SendRunTest, FailsAFileWhoseOnlyConnectionIsTurnedAway) {
    phoneListens();
    phone_->turnsAway = [](int) { return true; };
    EXPECT_EQ(send(files(2)), 2);
    EXPECT_THAT(told_.of("putBack"), IsEmpty());
    EXPECT_THAT(told_.reasons, testing::Each(HasSubstr("noise handshake: ")));
}

TEST_F(SendRunTest, OffersAgainWhatBreaksBehindItsEndUnderTheSameId) {
    phoneListens();
    phone_->breaksOff = [](int number) { return number == 0; };
    EXPECT_EQ(send(files(1)), 0);
    EXPECT_THAT(told_.of("again"), SizeIs(1));
    ASSERT_THAT(phone_->ids, SizeIs(2));
    EXPECT_EQ(phone_->ids[0], phone_->ids[1]);
}

TEST_F(SendRunTest, SaysThatAFileMayBeThereAfterTheSecondBreak) {
    phoneListens();
    phone_->breaksOff = [](int) { return true; };
    EXPECT_EQ(send(files(1)), 1);
    EXPECT_THAT(told_.reasons, ElementsAre(std::string(DeliveryInDoubt::text) + " (in doubt)"));
    EXPECT_THAT(journal_.snapshotEntries(), SizeIs(1)) << "sent again it has the same id";
}

TEST_F(SendRunTest, DoesNotOfferAgainWhatHasChangedMeanwhile) {
    phoneListens();
    const std::vector<std::string> paths = files(1);
    phone_->breaksOff = [this, &paths](int) {
        world_.files.put(paths[0], "something else");
        return true;
    };
    EXPECT_EQ(send(paths), 1);
    EXPECT_THAT(phone_->ids, SizeIs(1));
    EXPECT_THAT(told_.reasons, ElementsAre("file read: /home/ann/0.txt changed while it was sent (in doubt)"));
}

TEST_F(SendRunTest, SendsTwoFilesOfTheSameNameAndContentOneAfterTheOther) {
    phoneListens();
    phone_->thinks = 1s;
    std::vector<std::string> paths = files(1);
    world_.files.put("/home/ann/other/0.txt", "content 0\n");
    paths.emplace_back("/home/ann/other/0.txt");
    EXPECT_EQ(send(paths), 0);
    ASSERT_THAT(phone_->ids, SizeIs(2));
    EXPECT_NE(phone_->ids[0], phone_->ids[1]);
    EXPECT_EQ(phone_->most, 1);
}

TEST_F(SendRunTest, ReportsWhatCannotBeReadAndSendsTheRest) {
    phoneListens();
    std::vector<std::string> paths = files(3);
    paths[1] = "/home/ann/missing.txt";
    EXPECT_EQ(send(paths), 1);
    EXPECT_THAT(told_.reasons, ElementsAre("file missing: /home/ann/missing.txt"));
    EXPECT_THAT(phone_->names, UnorderedElementsAre("0.txt", "2.txt"));
    EXPECT_THAT(told_.of("began"), SizeIs(2));
}

TEST_F(SendRunTest, GivesAFileThatChangesBeforeItsTurnAnIdOfItsOwn) {
    phoneListens();
    const std::vector<std::string> paths = files(2);
    const std::string front(FileFingerprint::bytes, 'x'); // by which the journal knows it
    world_.files.put(paths[1], front + "before");
    std::map<std::string, std::string> prepared;
    phone_->breaksOff = [this, &paths, &front, &prepared](int number) {
        if (number == 0) {
            prepared = journal_.snapshotEntries();
            world_.files.put(paths[1], front + "behind");
        }
        return false;
    };
    EXPECT_EQ(send(paths), 0);
    ASSERT_THAT(phone_->ids, SizeIs(2));
    ASSERT_THAT(prepared, SizeIs(2)) << "both were prepared by then";
    for (const auto& [key, id] : prepared) {
        EXPECT_NE(phone_->ids[1], id);
    }
    EXPECT_THAT(journal_.snapshotEntries(), IsEmpty());
}

TEST_F(SendRunTest, SaysThatAPhoneCouldNotBeWoken) {
    PeerRecord asleep = world_.phoneRecord();
    asleep.peer_fcm_token = "token";
    EXPECT_EQ(send(files(1), {asleep}), 1);
    EXPECT_THAT(told_.reasons, ElementsAre(HasSubstr("FCM wake failed: service account JSON missing")));
}

TEST_F(SendRunTest, FailsEachFileThatAPhoneDeclines) {
    phoneListens();
    phone_->answer = Row::decline();
    EXPECT_EQ(send(files(3)), 3);
    EXPECT_THAT(told_.reasons, testing::Each("the phone declined the file."));
}

TEST_F(SendRunTest, GivesTenSecondsToWhoConnectsAndDoesNotProveItsKey) {
    const std::unique_ptr<platform::Listener> listener = world_.network.listen(
        {.port = fakes::World::phonePort, .keepAlive = std::nullopt}, world_.context.get_executor());
    EXPECT_EQ(send(files(1)), 1);
    EXPECT_THAT(told_.reasons, ElementsAre("noise handshake: timed out after 10 seconds"));
    EXPECT_DOUBLE_EQ(world_.clock.elapsed(), 10);
}

TEST_F(SendRunTest, SaysWhatWasCutShortWhenItIsCancelled) {
    phoneListens();
    phone_->thinks = 5s;
    make(files(12), {world_.phoneRecord()});
    sendUntil(7s); // the first is there, two are offered
    EXPECT_THAT(told_.of("delivered"), SizeIs(1));
    EXPECT_THAT(told_.of("failed"), IsEmpty());
    EXPECT_THAT(run_->interruption().cutShort, SizeIs(2));
    EXPECT_EQ(run_->interruption().notBegun, 9U);
    EXPECT_THAT(journal_.snapshotEntries(), SizeIs(11)) << "for the next time";
    EXPECT_DOUBLE_EQ(world_.clock.elapsed(), 7);
}

TEST_F(SendRunTest, GivesAPhoneASecondToConfirmWhatWasSentWhenItIsCancelled) {
    world_.alongside([](fakes::World& world) -> Task<> {
        const auto phone = co_await ScriptedPeer::accept(world, world.phoneKey);
        const auto offer = co_await phone->expect<Row::FileOffer>();
        co_await phone->send(Row::resume(offer.transfer_id, ByteOffset()));
        const Bytes data = co_await phone->receiveUntilDone();
        co_await world.clock.sleep(3500ms);
        phone->close();
    }(world_));
    make(files(1), {world_.phoneRecord()});
    sendUntil(3s);
    EXPECT_THAT(told_.of("delivered"), SizeIs(1));
    EXPECT_THAT(run_->interruption().cutShort, IsEmpty());
    EXPECT_DOUBLE_EQ(world_.clock.elapsed(), 3.5);
}

TEST_F(SendRunTest, DoesNotWaitLongerThanThatWhenItIsCancelled) {
    world_.alongside([](fakes::World& world) -> Task<> {
        const auto phone = co_await ScriptedPeer::accept(world, world.phoneKey);
        const auto offer = co_await phone->expect<Row::FileOffer>();
        co_await phone->send(Row::resume(offer.transfer_id, ByteOffset()));
        const Bytes data = co_await phone->receiveUntilDone();
        co_await world.clock.sleep(30s);
    }(world_));
    make(files(1), {world_.phoneRecord()});
    sendUntil(3s);
    EXPECT_THAT(run_->interruption().cutShort, SizeIs(1));
    EXPECT_DOUBLE_EQ(world_.clock.elapsed(), 3 + SendRun::grace.count());
}

} // namespace
} // namespace orlinth::host
