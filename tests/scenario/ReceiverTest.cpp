#include "OrlinthCore/Receiving/ReceiveTransfer.h"
#include "fakes/CancelMidway.h"
#include "fakes/ReceiverWorld.h"
#include "fakes/Sidecar.h"

#include <gmock/gmock.h>

namespace orlinth {
namespace {

using fakes::ReceiverWorld;
using fakes::ScriptedListener;
using fakes::ScriptedPeer;
using testing::ElementsAre;
using testing::IsEmpty;
using Row = TransportMessage;

const platform::Path folder = ReceiverWorld::folder;

class ReceiverTest : public testing::Test {
protected:
    ReceiverTest() { world.putPeers({world.phoneRecord(), world.tabletRecord()}); }
    ReceiverWorld world;
};

// ---- starting and ending

TEST_F(ReceiverTest, TellsItsPortAndWaitsOnItsOwnQueue) {
    world.start();
    EXPECT_THAT(world.ports, ElementsAre(ReceiverWorld::port));
    EXPECT_TRUE(world.running);
    EXPECT_EQ(world.queues.labels.front(), "orlinth.receiver");
}

TEST_F(ReceiverTest, FailsToStartOnAnInvalidPort) {
    world.make(0);
    world.start();
    EXPECT_FALSE(world.running);
    EXPECT_EQ(describe(world.ended), "listener start failed: invalid port 0");
    EXPECT_THAT(world.ports, IsEmpty());
}

TEST_F(ReceiverTest, FailsToStartOnAPortInUse) {
    const auto other =
        world.network.listen({.port = ReceiverWorld::port, .keepAlive = std::nullopt}, world.context.get_executor());
    world.start();
    EXPECT_EQ(describe(world.ended), "listener start failed: Address already in use");
}

TEST_F(ReceiverTest, UsesAPortThatIsOpenAlready) {
    world.make(0).listener =
        world.network.listen({.port = ReceiverWorld::port, .keepAlive = std::nullopt}, world.context.get_executor());
    world.start();
    EXPECT_THAT(world.ports, ElementsAre(ReceiverWorld::port));
    const auto phone = world.phone();
    EXPECT_EQ(world.authenticated.size(), 1U);
}

TEST_F(ReceiverTest, StopEndsItWellAndFreesThePort) {
    world.start();
    world.stopAndWait();
    EXPECT_FALSE(world.ended);
    EXPECT_EQ(world.log.messages().back(), "listener AsyncStream completed");
    EXPECT_EQ(world.log.lines().back().level, platform::LogLevel::info);
    const auto other =
        world.network.listen({.port = ReceiverWorld::port, .keepAlive = std::nullopt}, world.context.get_executor());
    EXPECT_EQ(other->port(), ReceiverWorld::port);
}

TEST_F(ReceiverTest, StopBeforeItRunsMakesItEndAtOnceWithNothingOpened) {
    world.make().stop();
    world.start();
    EXPECT_FALSE(world.running);
    EXPECT_FALSE(world.ended);
    EXPECT_THAT(world.ports, IsEmpty());
}

TEST_F(ReceiverTest, RunsAgainAfterStop) {
    for (int i = 0; i < 3; ++i) {
        world.start();
        const auto phone = world.phone();
        world.offer(*phone, "a.txt", 10, "ID-" + std::to_string(i));
        world.sendData(*phone, "0123456789");
        world.send(*phone, Row::done());
        const auto interrupted = world.phone();
        world.offer(*interrupted, "b.txt", 10, "ID-b");
        world.stopAndWait();
        EXPECT_FALSE(world.ended);
        EXPECT_TRUE(world.seesTheEnd(*interrupted));
        world.receiver->stop(); // of what has ended already: nothing
        world.settle();
    }
    EXPECT_EQ(world.transfers.size(), 3U);
    EXPECT_THAT(world.ports, ElementsAre(ReceiverWorld::port, ReceiverWorld::port, ReceiverWorld::port));
    EXPECT_THAT(world.failures, IsEmpty());
}

TEST_F(ReceiverTest, RunsAgainAfterAListenerFailureAndACancellation) {
    const auto door = std::make_shared<ScriptedListener::Door>(world.context.get_executor());
    world.make().listener = std::make_unique<ScriptedListener>(door);
    world.start();
    door->push(platform::SystemError::fromErrno(ENETRESET));
    fakes::runUntilIdle(world.context, world.clock);
    EXPECT_TRUE(world.ended);
    world.start();
    EXPECT_EQ(world.offer(*world.phone(), "a.txt"), 0);
    world.stopRun.emit(asio::cancellation_type::terminal);
    fakes::runUntilIdle(world.context, world.clock);
    EXPECT_TRUE(world.ended);
    world.start();
    EXPECT_EQ(world.offer(*world.phone(), "b.txt", 10, "ID-2"), 0);
    world.stopAndWait();
    EXPECT_FALSE(world.ended);
}

TEST_F(ReceiverTest, StopEndsARunThatHasNotBegunYet) {
    world.make();
    Task<> run = world.receiver->run(world.callbacks());
    world.receiver->stop();
    world.run(std::move(run));
    EXPECT_THAT(world.ports, IsEmpty());
    world.start();
    EXPECT_TRUE(world.running);
    world.stopAndWait();
}

TEST_F(ReceiverTest, ComesBackWithTheNextRunFromSteppingAside) {
    Receiver& receiver = world.start();
    world.run(receiver.stepAside());
    world.stopAndWait();
    world.run(receiver.comeBack());
    world.start();
    EXPECT_EQ(world.offer(*world.phone(), "a.txt"), 0);
    world.stopAndWait();
}

TEST_F(ReceiverTest, AListenerFailureEndsItOnceEveryConnectionHasEnded) {
    const auto door = std::make_shared<ScriptedListener::Door>(world.context.get_executor());
    world.make().listener = std::make_unique<ScriptedListener>(door);
    world.start();
    auto ends = fakes::connectedStreams(world.context.get_executor());
    door->push(std::move(ends.second));
    door->push(platform::SystemError::fromErrno(ENETRESET));
    fakes::runUntilIdle(world.context, world.clock);
    EXPECT_FALSE(world.running);
    EXPECT_EQ(describe(world.ended), "listener stopped: Network dropped connection on reset");
    EXPECT_TRUE(door->closed);
    EXPECT_LT(world.clock.elapsed(), 1);
}

TEST_F(ReceiverTest, SurvivesThatDescriptorsRunOutAndEndsTheOldestStranger) {
    const auto door = std::make_shared<ScriptedListener::Door>(world.context.get_executor());
    world.make().listener = std::make_unique<ScriptedListener>(door);
    world.start();
    auto stranger = fakes::connectedStreams(world.context.get_executor());
    auto later = fakes::connectedStreams(world.context.get_executor());
    door->push(std::move(stranger.second));
    for (const int number : {EMFILE, ENFILE, ENOBUFS, ENOMEM}) {
        door->push(platform::SystemError::fromErrno(number));
    }
    door->push(std::move(later.second));
    world.settle();
    EXPECT_EQ(door->accepts, 2) << "it rests before it tries again";
    world.pass(1s);
    EXPECT_EQ(door->accepts, 7);
    EXPECT_TRUE(world.running);
    EXPECT_THAT(world.failureTexts(), ElementsAre("wire: too many connections of strangers"));
    EXPECT_EQ(world.failures[0].remoteEndpoint, "203.0.113.1:40112");
    EXPECT_EQ(world.failures[0].from, "");
}

TEST_F(ReceiverTest, CancellingRunEndsEveryConnectionAndIsACancellation) {
    world.start();
    const auto phone = world.phone();
    world.offer(*phone, "a.txt");
    world.sendData(*phone, "01234");
    world.stopRun.emit(asio::cancellation_type::terminal);
    fakes::runUntilIdle(world.context, world.clock);
    EXPECT_FALSE(world.running);
    fakes::expectCancellation(world.ended);
    EXPECT_TRUE(world.seesTheEnd(*phone));
    EXPECT_LT(world.clock.elapsed(), 1);
    EXPECT_EQ(world.text(folder / "a.txt.partial"), "01234");
    EXPECT_THAT(world.failures, IsEmpty());
}

TEST_F(ReceiverTest, StopLeavesConnectionsInEveryStateWithNothingButResumablePartials) {
    Receiver& receiver = world.start();
    receiver.approveOffer = nullptr;
    const auto silent = world.silentStranger();
    const auto early = world.phone();
    const auto offered = world.connectAs(world.tabletKey);
    world.offer(*offered, "offered.txt", 10, "ID-offered");
    const auto inTheData = world.phone();
    world.offer(*inTheData, "data.txt", 10, "ID-data");
    world.sendData(*inTheData, "012345");
    world.stopAndWait();
    EXPECT_FALSE(world.ended);
    EXPECT_EQ(world.ownersAtEnd, 0U) << "it returns when every connection has ended, not before";
    EXPECT_LT(world.clock.elapsed(), 1);
    EXPECT_TRUE(world.seesTheEnd(*early) && world.seesTheEnd(*offered) && world.seesTheEnd(*inTheData));
    EXPECT_EQ(world.ends(), 0U) << "what we end ourselves is no failure";
    EXPECT_EQ(world.text(folder / "data.txt.partial"), "012345");
    EXPECT_TRUE(fakes::sidecarOf(world.files, folder / "data.txt.partial"));
    EXPECT_FALSE(world.files.isLocked(folder / "data.txt.partial"));
    EXPECT_TRUE(ActiveTransfers::shared().ownerCount() == 0 && ActiveTransfers::shared().drainingCount() == 0);

    ReceiverWorld* const again = &world; // the same computer, later
    again->receiver.reset();
    again->start();
    const auto back = again->phone();
    EXPECT_EQ(again->offer(*back, "data.txt", 10, "ID-data"), 6);
    again->sendData(*back, "6789");
    again->send(*back, Row::done());
    EXPECT_EQ(again->text(folder / "data.txt"), "0123456789");
}

// ---- a file

TEST_F(ReceiverTest, SavesAFileAndTellsWhoSentIt) {
    world.start();
    const auto phone = world.phone();
    EXPECT_EQ(world.offer(*phone, "a.txt"), 0);
    world.sendData(*phone, "01234");
    world.sendData(*phone, "56789");
    world.send(*phone, Row::done());
    EXPECT_TRUE(world.seesTheEnd(*phone));
    ASSERT_EQ(world.transfers.size(), 1U);
    const Receiver::File& told = world.transfers[0];
    EXPECT_EQ(told.from, "Pixel-8");
    EXPECT_EQ(told.file.savedAt, folder / "a.txt");
    EXPECT_EQ(told.file.bytesWritten, 10);
    EXPECT_EQ(told.file.remoteEndpoint, "203.0.113.1:40112");
    EXPECT_EQ(world.text(folder / "a.txt"), "0123456789");
    EXPECT_FALSE(world.files.exists(folder / "a.txt.partial"));
    EXPECT_FALSE(world.files.exists(folder / "a.txt.partial.meta.json"));
    EXPECT_EQ(world.ends(), 1U);
    EXPECT_EQ(ActiveTransfers::shared().ownerCount(), 0U);
}

TEST_F(ReceiverTest, TakesTwoFilesAtOnceFromTwoPhones) {
    world.start();
    const auto phone = world.phone();
    const auto tablet = world.connectAs(world.tabletKey);
    world.offer(*phone, "same.txt", 10, "ID-phone");
    world.offer(*tablet, "same.txt", 10, "ID-tablet");
    for (const char* piece : {"aa", "bb", "cc"}) {
        world.sendData(*phone, piece);
        world.sendData(*tablet, std::string(piece) + piece);
    }
    world.send(*tablet, Row::done());
    world.send(*phone, Row::done());
    ASSERT_EQ(world.transfers.size(), 2U);
    EXPECT_EQ(world.transfers[0].from, "Tablet");
    EXPECT_EQ(world.text(world.transfers[0].file.savedAt), "aaaabbbbcccc");
    EXPECT_EQ(world.transfers[1].from, "Pixel-8");
    EXPECT_EQ(world.text(world.transfers[1].file.savedAt), "aabbcc");
}

TEST_F(ReceiverTest, KeepsThePartialOfALostConnectionAndResumesIt) {
    world.start();
    const auto phone = world.phone();
    world.offer(*phone, "a.txt");
    world.sendData(*phone, "0123");
    phone->close();
    world.settle();
    EXPECT_THAT(world.failureTexts(), ElementsAre("wire EOF before expected bytes"));
    EXPECT_EQ(world.failures[0].from, "Pixel-8");
    EXPECT_EQ(ActiveTransfers::shared().ownerCount(), 0U);
    const auto back = world.phone();
    EXPECT_EQ(world.offer(*back, "a.txt"), 4);
    world.sendData(*back, "456789");
    world.send(*back, Row::done());
    ASSERT_EQ(world.transfers.size(), 1U);
    EXPECT_EQ(world.transfers[0].file.resumedFromOffset, ByteOffset(4));
    EXPECT_EQ(world.transfers[0].file.bytesReceivedThisSession, 6);
    EXPECT_EQ(world.text(folder / "a.txt"), "0123456789");
}

TEST_F(ReceiverTest, MakesTheFolderAnewThatSomebodyRemoved) {
    world.receiver.emplace(world.system, world.computerKey, world.phoneKey.publicKey(), folder / "sub" / "sub",
                           ReceiverWorld::port);
    world.start();
    const auto phone = world.phone();
    world.offer(*phone, "a.txt", 0);
    world.send(*phone, Row::done());
    EXPECT_EQ(world.text(folder / "sub" / "sub" / "a.txt"), "");
}

TEST_F(ReceiverTest, TellsOfAFolderThatCannotBeMade) {
    world.files.put("/home/ann/file", "in the way");
    world.receiver.emplace(world.system, world.computerKey, world.phoneKey.publicKey(), "/home/ann/file/inbox",
                           ReceiverWorld::port);
    world.start();
    const auto phone = world.phone();
    world.send(*phone, Row::fileOffer("a.txt", 1, "text/plain", "ID-1"));
    EXPECT_TRUE(world.seesTheEnd(*phone));
    ASSERT_EQ(world.failures.size(), 1U);
    EXPECT_THAT(world.failureTexts()[0], testing::StartsWith("file write failed: "));
    EXPECT_TRUE(world.running);
}

TEST_F(ReceiverTest, ReportsAFullDiskAndServesTheNext) {
    world.start();
    const auto phone = world.phone();
    world.offer(*phone, "a.txt");
    world.files.addFault({.operation = fakes::Operation::write, .errorNumber = ENOSPC});
    world.sendData(*phone, "01234");
    EXPECT_TRUE(world.seesTheEnd(*phone));
    EXPECT_THAT(world.failureTexts(), ElementsAre("file write failed: No space left on device"));
    world.files.clearFaults();
    const auto back = world.phone();
    EXPECT_EQ(world.offer(*back, "a.txt"), 0);
    world.sendData(*back, "0123456789");
    world.send(*back, Row::done());
    EXPECT_EQ(world.text(folder / "a.txt"), "0123456789");
}

TEST_F(ReceiverTest, ReportsAFailedRenameAndASidecarThatCannotBeWritten) {
    world.start();
    world.files.addFault({.operation = fakes::Operation::rename, .errorNumber = EACCES, .nameEnding = "/a.txt"});
    world.files.addFault(
        {.operation = fakes::Operation::rename, .errorNumber = EACCES, .nameEnding = "b.txt.partial.meta.json"});
    const auto first = world.phone();
    world.offer(*first, "a.txt");
    world.send(*first, Row::done());
    const auto second = world.phone();
    world.send(*second, Row::fileOffer("b.txt", 1, "text/plain", "ID-2"));
    EXPECT_TRUE(world.seesTheEnd(*second));
    EXPECT_THAT(world.failureTexts(), ElementsAre("file write failed: rename: Permission denied",
                                                  "file write failed: meta write: Permission denied"));
    EXPECT_TRUE(world.files.exists(folder / "a.txt.partial"));
    EXPECT_EQ(ActiveTransfers::shared().ownerCount(), 0U);
}

// ---- the same rules as the one-shot path

struct Delivery {
    std::string name;
    std::string id;
    std::vector<std::string> pieces;
    bool isDone = true;
};

/// The folder after these deliveries, and the offsets that were answered.
struct FolderState {
    std::vector<std::string> files;
    std::vector<std::string> contents;
    std::vector<std::int64_t> offsets;
    bool operator==(const FolderState&) const = default;
};

void setScene(ReceiverWorld& world) {
    world.files.put(folder / "taken.txt", "old");
    world.files.put(folder / "rest.txt.partial", "012");
    world.files.put(folder / "rest.txt.partial.meta.json",
                    R"({"transfer_id":"ID-rest","advertised_size":9,"started_at_epoch_ms":5})");
}

FolderState stateOf(ReceiverWorld& world, std::vector<std::int64_t> offsets) {
    FolderState state{.files = {}, .contents = {}, .offsets = std::move(offsets)};
    for (const std::string& file : world.files.allFiles()) {
        if (file.starts_with(folder.native())) {
            state.files.push_back(file);
            const std::string content = world.text(file);
            state.contents.push_back(file.ends_with(".json") ? content.substr(0, content.find("peer_pubkey"))
                                                             : content);
        }
    }
    return state;
}

/// Returns from where the receiver wants it.
std::int64_t deliver(ReceiverWorld& world, const Delivery& delivery) {
    const auto phone = world.phone();
    const std::int64_t offset = world.offer(*phone, delivery.name, 10, delivery.id);
    for (const std::string& piece : delivery.pieces) {
        world.sendData(*phone, piece);
    }
    if (delivery.isDone) {
        world.send(*phone, Row::done());
    }
    phone->close();
    world.settle();
    return offset;
}

FolderState throughTheService(const std::vector<Delivery>& deliveries) {
    ReceiverWorld world;
    setScene(world);
    world.start();
    std::vector<std::int64_t> offsets;
    for (const Delivery& delivery : deliveries) {
        offsets.push_back(deliver(world, delivery));
    }
    return stateOf(world, offsets);
}

FolderState throughOneShots(const std::vector<Delivery>& deliveries) {
    ReceiverWorld world;
    setScene(world);
    std::vector<std::int64_t> offsets;
    for (const Delivery& delivery : deliveries) {
        world.alongside([](ReceiverWorld& theWorld) -> Task<> {
            try {
                static_cast<void>(
                    co_await receiveOneTransfer(theWorld.system, {.staticKey = theWorld.computerKey,
                                                                  .expectedPeerPubkey = theWorld.phoneKey.publicKey(),
                                                                  .downloadsDir = folder,
                                                                  .port = ReceiverWorld::port}));
            } catch (const WireConnection::Error&) {
            }
        }(world));
        world.settle();
        offsets.push_back(deliver(world, delivery));
    }
    return stateOf(world, offsets);
}

TEST(ReceiverRules, AreThoseOfTheOneShotPath) {
    const std::vector<Delivery> deliveries = {
        {.name = "plain.txt", .id = "1", .pieces = {"abc", "def"}},
        {.name = "taken.txt", .id = "2", .pieces = {"new"}},
        {.name = "rest.txt", .id = "ID-rest", .pieces = {"3456"}},
        {.name = "rest.txt", .id = "3", .pieces = {}},
        {.name = "../../etc/passwd", .id = "4", .pieces = {"x"}},
        {.name = "/", .id = "5", .pieces = {"x"}},
        {.name = "broken.txt", .id = "6", .pieces = {"01", "23"}, .isDone = false},
        {.name = "broken.txt", .id = "7", .pieces = {"other"}, .isDone = true},
        {.name = "broken.txt", .id = "6", .pieces = {"4567"}, .isDone = false},
    };
    const FolderState service = throughTheService(deliveries);
    const FolderState oneShots = throughOneShots(deliveries);
    EXPECT_EQ(service.files, oneShots.files);
    EXPECT_EQ(service.contents, oneShots.contents);
    EXPECT_EQ(service.offsets, oneShots.offsets);
    EXPECT_GT(service.files.size(), 8U);
    EXPECT_EQ(service.offsets.back(), 4);
}

// ---- stepping aside

TEST_F(ReceiverTest, StepsAsideAndComesBackWhileItsConnectionsGoOn) {
    Receiver& receiver = world.start();
    const auto phone = world.phone();
    world.offer(*phone, "a.txt");
    world.run(receiver.stepAside());
    {
        const auto other = world.network.listen({.port = ReceiverWorld::port, .keepAlive = std::nullopt},
                                                world.context.get_executor());
        world.sendData(*phone, "0123456789");
        try {
            world.run(receiver.comeBack());
            ADD_FAILURE() << "the port is in use";
        } catch (const Receiver::Error& error) {
            EXPECT_EQ(error.which(), Receiver::Error::Case::listenerStartFailed);
            EXPECT_EQ(error.description(), "listener start failed: Address already in use");
        }
    }
    world.run(receiver.comeBack());
    world.send(*phone, Row::done());
    EXPECT_EQ(world.transfers.size(), 1U);
    const auto next = world.phone();
    EXPECT_EQ(world.authenticated.size(), 2U);
    EXPECT_TRUE(world.running);
    EXPECT_THAT(world.ports, ElementsAre(ReceiverWorld::port)) << "it is told once";
}

TEST_F(ReceiverTest, StepsAsideAndComesBackManyTimesInAHurry) {
    Receiver& receiver = world.start();
    for (int round = 0; round < 20; ++round) {
        world.alongside(receiver.stepAside());
        if (round % 3 == 0) {
            world.alongside(receiver.stepAside());
        }
        if (round % 2 == 0) {
            world.settle();
        }
        world.alongside(receiver.comeBack());
        if (round % 5 == 0) {
            world.alongside(receiver.comeBack());
        }
        if (round % 4 == 0) {
            world.settle();
        }
    }
    world.pass(1s);
    EXPECT_EQ(world.companionsRunning, 0);
    EXPECT_TRUE(world.running);
    const auto phone = world.phone();
    EXPECT_EQ(world.authenticated.size(), 1U);
}

TEST_F(ReceiverTest, ComingBackWhenItIsThereDoesNothing) {
    Receiver& receiver = world.start();
    world.run(receiver.comeBack());
    const auto phone = world.phone();
    EXPECT_EQ(world.authenticated.size(), 1U);
}

TEST_F(ReceiverTest, StopsWhileItIsAside) {
    Receiver& receiver = world.start();
    world.run(receiver.stepAside());
    world.stopAndWait();
    EXPECT_FALSE(world.ended);
    world.run(receiver.comeBack());
    EXPECT_NO_THROW(static_cast<void>(
        world.network.listen({.port = ReceiverWorld::port, .keepAlive = std::nullopt}, world.context.get_executor())))
        << "a service that has ended does not open its port again";
}

TEST(ReceiverErrorTexts, AreTheFixedOnes) {
    EXPECT_EQ(Receiver::Error::listenerStartFailed("x").description(), "listener start failed: x");
    EXPECT_EQ(Receiver::Error::listenerStopped("x").description(), "listener stopped: x");
    EXPECT_EQ(Receiver::Error::listenerStopped("x").which(), Receiver::Error::Case::listenerStopped);
}

} // namespace
} // namespace orlinth
