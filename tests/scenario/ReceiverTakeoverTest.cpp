// A phone reconnects while its old connection hangs: in virtual time step by step, and on real sockets, files and
// threads at random points, a hundred times in a row.

#include "fakes/RealReceiver.h"
#include "fakes/ReceiverWorld.h"
#include "fakes/RunTask.h"
#include "fakes/WrappedStream.h"
#include "platform/linux/LinuxClock.h"
#include "platform/linux/LinuxNetwork.h"

#include <gmock/gmock.h>

#include <random>

namespace orlinth {
namespace {

using fakes::RealReceiver;
using fakes::ReceiverWorld;
using fakes::ScriptedPeer;
using testing::ElementsAre;
using Row = TransportMessage;

const platform::Path folder = ReceiverWorld::folder;

class ReceiverTakeover : public testing::Test {
protected:
    ReceiverTakeover() { world.putPeers({world.phoneRecord(), world.tabletRecord()}); }
    ~ReceiverTakeover() override {
        world.stopAndWait();
        EXPECT_EQ(ActiveTransfers::shared().ownerCount(), 0U);
        EXPECT_EQ(ActiveTransfers::shared().drainingCount(), 0U);
    }
    /// Something that owns a transfer and takes its time to let go of it.
    TransferConnectionRef stubborn(const platform::PrivateKey& whose, const std::string& id, bool& cancelled) {
        auto owner =
            std::make_shared<const TransferConnection>(whose.publicKey().peerKey(), [&cancelled] { cancelled = true; });
        static_cast<void>(ActiveTransfers::shared().takeOver(TransferId(id), owner));
        return owner;
    }
    /// Sends an offer without waiting for its answer.
    void offerOnly(ScriptedPeer& phone, const std::string& id = "ID-1") {
        world.send(phone, Row::fileOffer("a.txt", 10, "text/plain", id));
    }
    std::int64_t answer(ScriptedPeer& phone) {
        return world.run(phone.expect<Row::Resume>()).accepted_offset.bytesBefore();
    }

    ReceiverWorld world;
};

TEST_F(ReceiverTakeover, ANewerConnectionEndsTheOldOneAndGoesOnWhereItWas) {
    world.start();
    const auto old = world.phone();
    world.offer(*old, "a.txt");
    world.sendData(*old, "01234");
    const auto fresh = world.phone();
    EXPECT_EQ(world.offer(*fresh, "a.txt"), 5);
    EXPECT_TRUE(world.seesTheEnd(*old));
    EXPECT_THAT(world.failureTexts(), ElementsAre("wire: taken over by a newer connection"));
    EXPECT_EQ(world.failures[0].from, "Pixel-8");
    world.sendData(*fresh, "56789");
    world.send(*fresh, Row::done());
    EXPECT_EQ(world.text(folder / "a.txt"), "0123456789");
}

TEST_F(ReceiverTakeover, AnOfferOnAnOlderConnectionTakesOverToo) {
    world.start();
    const auto older = world.phone();
    const auto newer = world.phone();
    world.offer(*newer, "a.txt");
    world.sendData(*newer, "01234");
    EXPECT_EQ(world.offer(*older, "a.txt"), 5);
    EXPECT_TRUE(world.seesTheEnd(*newer));
    world.sendData(*older, "56789");
    world.send(*older, Row::done());
    EXPECT_EQ(world.text(folder / "a.txt"), "0123456789");
}

TEST_F(ReceiverTakeover, OnlyAnOfferThatWaitedWhileANewerOneWasTakenIsRefused) {
    int asked = 0;
    world.make().approveOffer = [&](Receiver::Offer) -> Task<bool> {
        const bool isFirst = asked++ == 0;
        co_await world.clock.sleep(isFirst ? Seconds(10s) : Seconds(100ms));
        co_return true;
    };
    world.start();
    const auto waiting = world.phone();
    offerOnly(*waiting);
    const auto quick = world.phone();
    EXPECT_EQ(world.offer(*quick, "a.txt"), 0);
    world.sendData(*quick, "01234");
    EXPECT_TRUE(world.seesTheEnd(*waiting));
    EXPECT_THAT(world.failureTexts(), ElementsAre("protocol violation: transfer is active on a newer connection"));
    world.sendData(*quick, "56789");
    world.send(*quick, Row::done());
    EXPECT_EQ(world.text(folder / "a.txt"), "0123456789");
}

TEST_F(ReceiverTakeover, OtherTransfersOfThePhoneGoOn) {
    world.start();
    const auto one = world.phone();
    world.offer(*one, "a.txt", 10, "ID-1");
    const auto other = world.phone();
    world.offer(*other, "b.txt", 10, "ID-2");
    world.send(*one, Row::done());
    world.send(*other, Row::done());
    EXPECT_EQ(world.transfers.size(), 2U);
}

TEST_F(ReceiverTakeover, ASuccessorWaitsUntilItsPredecessorHasWoundDown) {
    world.start();
    bool cancelled = false;
    const TransferConnectionRef old = stubborn(world.phoneKey, "ID-1", cancelled);
    const auto phone = world.phone();
    offerOnly(*phone);
    world.pass(5s);
    EXPECT_TRUE(cancelled);
    EXPECT_FALSE(world.files.exists(folder / "a.txt.partial")) << "it touches nothing before";
    ActiveTransfers::shared().finish(TransferId("ID-1"), old);
    EXPECT_EQ(answer(*phone), 0);
    EXPECT_LT(world.clock.elapsed(), 5.1) << "soon after";
}

TEST_F(ReceiverTakeover, TheLastOfAChainWaitsForTheFirstThoughTheMiddleOneIsGone) {
    world.start();
    bool cancelled = false;
    const TransferConnectionRef old = stubborn(world.phoneKey, "ID-1", cancelled);
    const auto middle = world.phone();
    offerOnly(*middle);
    const auto last = world.phone();
    offerOnly(*last);
    EXPECT_TRUE(world.seesTheEnd(*middle));
    EXPECT_THAT(world.failureTexts(), ElementsAre("wire: taken over by a newer connection"));
    world.pass(5s);
    EXPECT_FALSE(world.files.exists(folder / "a.txt.partial"));
    ActiveTransfers::shared().finish(TransferId("ID-1"), old);
    EXPECT_EQ(answer(*last), 0);
}

TEST_F(ReceiverTakeover, AnIdThatIsActiveFromAnotherPhoneIsRefusedAndNotDisplaced) {
    world.start();
    const auto phone = world.phone();
    world.offer(*phone, "a.txt");
    world.sendData(*phone, "01234");
    const auto tablet = world.connectAs(world.tabletKey);
    offerOnly(*tablet);
    EXPECT_TRUE(world.seesTheEnd(*tablet));
    EXPECT_THAT(world.failureTexts(), ElementsAre("protocol violation: transfer is active from another phone"));
    EXPECT_EQ(world.failures[0].from, "Tablet");
    world.sendData(*phone, "56789");
    world.send(*phone, Row::done());
    EXPECT_EQ(world.text(folder / "a.txt"), "0123456789");
}

TEST_F(ReceiverTakeover, AnIdThatStillWindsDownFromAnotherPhoneIsRefused) {
    world.start();
    bool cancelled = false;
    const TransferConnectionRef old = stubborn(world.tabletKey, "ID-1", cancelled);
    const TransferConnectionRef between = stubborn(world.tabletKey, "ID-1", cancelled);
    ActiveTransfers::shared().finish(TransferId("ID-1"), between); // `old` winds down, nobody owns it
    const auto phone = world.phone();
    offerOnly(*phone);
    EXPECT_TRUE(world.seesTheEnd(*phone));
    EXPECT_THAT(world.failureTexts(), ElementsAre("protocol violation: transfer is active from another phone"));
    EXPECT_FALSE(world.files.exists(folder / "a.txt.partial"));
    ActiveTransfers::shared().finish(TransferId("ID-1"), old);
}

TEST_F(ReceiverTakeover, AWaitingSuccessorEndsWhenTheServiceStops) {
    world.start();
    bool cancelled = false;
    const TransferConnectionRef old = stubborn(world.phoneKey, "ID-1", cancelled);
    const auto phone = world.phone();
    offerOnly(*phone);
    world.stopAndWait();
    EXPECT_FALSE(world.ended);
    EXPECT_TRUE(world.seesTheEnd(*phone));
    ActiveTransfers::shared().finish(TransferId("ID-1"), old);
}

TEST_F(ReceiverTakeover, AConnectionThatFinishedOnItsOwnHoldsNobodyUp) {
    world.start();
    for (int i = 0; i < 3; ++i) {
        const auto phone = world.phone();
        EXPECT_EQ(world.offer(*phone, "a.txt"), 0);
        world.send(*phone, Row::done());
    }
    EXPECT_EQ(world.transfers.size(), 3U);
}

// ---- real sockets and threads

/// A stream that swallows what it is given once its allowance is spent: a connection that hangs, also within a frame.
class HangingStream : public fakes::WrappedStream {
public:
    HangingStream(std::unique_ptr<platform::Stream> inner, std::shared_ptr<std::size_t> allowance)
        : WrappedStream(std::move(inner)), allowance_(std::move(allowance)) {}
    Task<> writeAll(ByteView data) override {
        const ByteView passed = data.first(std::min(data.size(), *allowance_));
        *allowance_ -= passed.size();
        co_await inner().writeAll(passed);
    }

private:
    std::shared_ptr<std::size_t> allowance_;
};

/// A phone that gives its connections up at random points and delivers its file in the end.
class RestlessPhone {
public:
    RestlessPhone(std::uint16_t port, const platform::PrivateKey& key, std::string name, unsigned seed)
        : port_(port), key_(key), name_(std::move(name)), random_(seed), content_(contentBytes, '\0') {
        for (char& character : content_) {
            character = static_cast<char>(random_());
        }
    }

    void run(int rounds) { fakes::runTask(context_, deliver(rounds)); }

    [[nodiscard]] const std::string& name() const { return name_; }
    [[nodiscard]] const std::string& content() const { return content_; }
    [[nodiscard]] int resumptions() const { return resumptions_; }

private:
    static constexpr std::size_t contentBytes = 6 << 20;
    static constexpr Seconds answerPatience = 40s; // for the answer to an offer: a stuck successor fails the test

    Task<> deliver(int rounds) {
        constexpr int patientRounds = 10; // in the end, so that no offer of old is still on its way when it is over
        std::deque<std::unique_ptr<ScriptedPeer>> hanging;
        for (int round = 0; round < rounds; ++round) {
            std::unique_ptr<ScriptedPeer> phone = co_await connect();
            co_await unlessTakenOver(workAWhile(*phone, round >= rounds - patientRounds));
            hanging.push_back(std::move(phone));
            if (hanging.size() > 3) {
                hanging.pop_front();
            }
        }
        bool isDelivered = false;
        for (int attempt = 0; attempt < 5 && !isDelivered; ++attempt) {
            const std::unique_ptr<ScriptedPeer> last = co_await connect();
            isDelivered = co_await unlessTakenOver(sendTheRest(*last));
        }
        EXPECT_TRUE(isDelivered);
    }

    /// False if the service has ended the connection, as it may. A phone tries again then. Silence is another matter.
    static Task<bool> unlessTakenOver(Task<> work) {
        try {
            co_await std::move(work);
            co_return true;
        } catch (const WireConnection::Error& error) {
            EXPECT_EQ(error.description().find("cancelled"), std::string::npos) << "a successor is stuck";
            co_return false;
        }
    }

    Task<> sendTheRest(ScriptedPeer& phone) {
        const std::size_t offset = co_await offerAndWait(phone);
        co_await sendFrom(phone, offset, contentBytes);
        co_await phone.send(Row::done());
        EXPECT_TRUE(co_await phone.seesTheEnd());
    }

    Task<std::unique_ptr<ScriptedPeer>> connect() {
        const Executor executor = context_.get_executor();
        std::unique_ptr<platform::Stream> stream = co_await network_.connect("127.0.0.1", port_, executor);
        allowance_ = std::make_shared<std::size_t>(SIZE_MAX);
        std::unique_ptr<platform::Stream> hanging = std::make_unique<HangingStream>(std::move(stream), allowance_);
        auto wire = std::make_unique<WireConnection>(std::move(hanging), clock_);
        wire->idleTimeout = answerPatience;
        NoiseHandshake handshake(NoiseRole::initiator, key_.clone(), asBytes(kOrlinthPrologue));
        co_await exchangeAsInitiator(*wire, handshake);
        co_return std::make_unique<ScriptedPeer>(std::move(wire), std::move(handshake).finalize());
    }

    /// Up to a random point, at which the connection is left hanging.
    Task<> workAWhile(ScriptedPeer& phone, bool isPatient) {
        switch (isPatient ? 5 : random_() % 6) {
        case 0: // before it has offered anything
            co_return;
        case 1: // within its offer
            *allowance_ = 1 + random_() % 60;
            co_await phone.send(offer());
            co_return;
        case 2: // while it waits for the answer
            co_await phone.send(offer());
            co_return;
        default:
            break;
        }
        const std::size_t offset = co_await offerAndWait(phone);
        const std::size_t most = random_() % 120'000;
        *allowance_ = random_() % 3 == 0 ? random_() % 60'000 : SIZE_MAX; // in the middle of a frame, or behind one
        co_await sendFrom(phone, offset, std::min(contentBytes - 1, offset + most));
    }

    [[nodiscard]] TransportMessage offer() const {
        return Row::fileOffer(name_, static_cast<std::int64_t>(contentBytes), "image/jpeg", "ID of " + name_);
    }

    Task<std::size_t> offerAndWait(ScriptedPeer& phone) {
        co_await phone.send(offer());
        const auto resume = co_await phone.expect<Row::Resume>();
        const auto offset = static_cast<std::size_t>(resume.accepted_offset.bytesBefore());
        EXPECT_LE(offset, contentBytes);
        EXPECT_GE(offset, lastOffset_) << "what was kept is lost";
        resumptions_ += offset > lastOffset_ ? 1 : 0;
        lastOffset_ = offset;
        co_return offset;
    }

    Task<> sendFrom(ScriptedPeer& phone, std::size_t from, std::size_t to) {
        while (from < to) {
            const std::size_t count = std::min<std::size_t>(to - from, 1 + random_() % 30'000);
            co_await phone.sendBinary(toBytes(std::string_view(content_).substr(from, count)));
            from += count;
        }
    }

    asio::io_context context_;
    platform::LinuxNetwork network_{context_};
    platform::LinuxClock clock_;
    std::uint16_t port_;
    const platform::PrivateKey& key_;
    std::string name_;
    std::mt19937 random_;
    std::string content_;
    std::shared_ptr<std::size_t> allowance_;
    std::size_t lastOffset_ = 0;
    int resumptions_ = 0;
};

TEST(ReceiverTakeoverOnSockets, AHundredTimesInARowNeverMixesWritersNorLeavesASuccessorStuck) {
    const platform::PrivateKey keys[] = {platform::PrivateKey::generate(), platform::PrivateKey::generate()};
    RealReceiver service({keys[0].publicKey(), keys[1].publicKey()});
    service.start();
    const auto seed = static_cast<unsigned>(testing::UnitTest::GetInstance()->random_seed());
    RestlessPhone one(service.port(), keys[0], "one.jpg", 100 + seed);
    RestlessPhone two(service.port(), keys[1], "two.jpg", 200 + seed);
    std::thread beside([&two] { EXPECT_NO_THROW(two.run(100)); });
    EXPECT_NO_THROW(one.run(100));
    beside.join();
    service.stop();

    for (const RestlessPhone* phone : {&one, &two}) {
        EXPECT_TRUE(fakes::readText(service.downloads() / phone->name()) == phone->content())
            << phone->name() << " has a wrong byte";
        EXPECT_GT(phone->resumptions(), 15) << "too little of what this is about has happened";
    }
    EXPECT_EQ(service.files().size(), 2U);
    std::size_t takenOver = 0;
    for (const std::string& failure : service.failures()) {
        // Its old connections are closed some time; "another receiver is writing" would be a second writer.
        const bool isTakeover = failure == "wire: taken over by a newer connection";
        takenOver += isTakeover ? 1 : 0;
        const bool hasComeLate = failure == "protocol violation: transfer is active on a newer connection";
        EXPECT_TRUE(isTakeover || hasComeLate || failure.find("EOF") != std::string::npos ||
                    failure.find("reset by peer") != std::string::npos ||
                    failure.find("Broken pipe") != std::string::npos)
            << failure;
    }
    EXPECT_GT(takenOver, 40U);
    for (const auto& entry : std::filesystem::directory_iterator(service.downloads())) {
        const std::string name = entry.path().filename();
        EXPECT_TRUE(name == one.name() || name == two.name()) << name << " is left";
    }
    EXPECT_EQ(ActiveTransfers::shared().ownerCount(), 0U);
    EXPECT_EQ(ActiveTransfers::shared().drainingCount(), 0U);
}

} // namespace
} // namespace orlinth
