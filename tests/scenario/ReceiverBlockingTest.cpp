#include "OrlinthCore/Sending/ActiveTransfers.h"
#include "fakes/ReceiverWorld.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace orlinth {
namespace {

using fakes::Operation;
using fakes::ReceiverWorld;
using fakes::ScriptedPeer;
using testing::IsEmpty;
using Row = TransportMessage;

/// The threads of the connections are shared. Nothing that may take long is done there: a disk that hangs, or a message
/// made to be expensive, would hold up other phones.
class ReceiverBlocking : public testing::Test {
protected:
    ReceiverBlocking() {
        world.putPeers({world.phoneRecord()});
        world.start();
        world.files.beforeEach([this](Operation operation, const platform::Path& path) {
            const bool mayTakeLong = operation == Operation::lock || operation == Operation::list ||
                                     (isMutating(operation) && operation != Operation::write);
            if (mayTakeLong && world.queues.isOnBlockingQueue()) {
                ++whereItMay;
            } else if (mayTakeLong) {
                elsewhere.push_back(path.filename());
            }
        });
    }
    ~ReceiverBlocking() override { world.files.beforeEach({}); }

    void expectNothingElsewhere() {
        EXPECT_THAT(elsewhere, IsEmpty());
        EXPECT_GT(whereItMay, 0);
    }

    ReceiverWorld world;
    std::vector<std::string> elsewhere;
    int whereItMay = 0;
};

TEST_F(ReceiverBlocking, ADeliveredFileIsFlushedElsewhere) {
    const auto phone = world.phone();
    world.offer(*phone, "a.txt");
    world.sendData(*phone, "0123456789");
    world.send(*phone, Row::done());
    ASSERT_EQ(world.transfers.size(), 1U);
    expectNothingElsewhere();
}

TEST_F(ReceiverBlocking, TheFirstMegabytesOfALargeFileAreMadeSafeElsewhere) {
    const auto phone = world.phone();
    constexpr std::int64_t size = 9 << 20;
    world.offer(*phone, "film", size);
    const std::size_t before = world.files.count(Operation::flush);
    for (std::int64_t sent = 0; sent < size; sent += 1 << 20) {
        world.sendData(*phone, std::string(1 << 20, 'x'));
    }
    EXPECT_GT(world.files.count(Operation::flush), before);
    expectNothingElsewhere();
}

TEST_F(ReceiverBlocking, AnInterruptedFileIsLeftForAResumeElsewhere) {
    const auto phone = world.phone();
    world.offer(*phone, "a.txt");
    world.sendData(*phone, "01234");
    const std::size_t before = world.files.count(Operation::flush);
    phone->close();
    world.settle();
    ASSERT_EQ(world.failures.size(), 1U);
    EXPECT_GT(world.files.count(Operation::flush), before);
    EXPECT_EQ(world.text(ReceiverWorld::folder / "a.txt.partial"), "01234");
    expectNothingElsewhere();
}

TEST_F(ReceiverBlocking, AFileThatTheEndOfTheServiceInterruptsTooAndIsThereWhenTheServiceHasEnded) {
    const auto phone = world.phone();
    world.offer(*phone, "a.txt");
    world.sendData(*phone, "01234");
    const std::size_t before = world.files.count(Operation::flush);
    world.stopAndWait();
    EXPECT_EQ(world.ownersAtEnd, 0U);
    EXPECT_GT(world.files.count(Operation::flush), before);
    EXPECT_FALSE(world.files.isLocked(ReceiverWorld::folder / "a.txt.partial"));
    expectNothingElsewhere();
}

TEST_F(ReceiverBlocking, WhyATransferEndedIsReportedAlsoIfItIsTakenOverWhileTheDiskIsWaitedFor) {
    const auto phone = world.phone();
    world.offer(*phone, "a.txt");
    world.sendData(*phone, "01234");
    const auto again = std::make_shared<const TransferConnection>(world.phoneKey.publicKey().peerKey(), [] {});
    ActiveTransfers& transfers = ActiveTransfers::shared();
    world.files.beforeEach([&](Operation operation, const platform::Path&) {
        if (operation != Operation::flush) {
            return;
        }
        if (const TransferConnectionRef displaced = transfers.takeOver(TransferId("ID-1"), again).displaced) {
            displaced->cancel(); // as for the phone's next attempt, which has begun
        }
    });
    world.send(*phone, Row::resume("ID-1", ByteOffset())); // no phone says that
    EXPECT_THAT(world.failureTexts(),
                testing::ElementsAre("protocol violation: unexpected Resume message from sender"));
    EXPECT_TRUE(transfers.mayProceed(TransferId("ID-1"), again));
    transfers.finish(TransferId("ID-1"), again);
}

TEST_F(ReceiverBlocking, WhatAPhoneSaysOfItselfIsWrittenElsewhere) {
    const auto phone = world.phone();
    world.send(*phone, Row::tokenUpdate("token"));
    world.send(*phone, Row::setName("Pixel"));
    world.passUntilRecordsAreWritten();
    EXPECT_EQ(world.onlyPeer().peer_hostname, "Pixel");
    expectNothingElsewhere();
}

TEST_F(ReceiverBlocking, APhoneThatUnpairsIsRemovedElsewhere) {
    const auto phone = world.phone();
    world.send(*phone, Row::unpair());
    ASSERT_EQ(world.syncs.size(), 1U);
    expectNothingElsewhere();
}

TEST_F(ReceiverBlocking, ALongMessageIsReadElsewhereAndAShortOneIsNot) {
    const auto stepsFor = [this](std::size_t bytes) {
        const auto phone = world.phone();
        const int before = world.queues.blockingQueues;
        world.send(*phone, Row::clipboard(std::string(bytes, 'x'), "text/plain"));
        EXPECT_EQ(world.clips.back().text.size(), bytes);
        return world.queues.blockingQueues - before;
    };
    EXPECT_EQ(stepsFor(1000), 0);
    EXPECT_EQ(stepsFor(100'000), 1);
}

TEST_F(ReceiverBlocking, AFailureElsewhereIsReportedAsHere) {
    world.files.addFault({.operation = Operation::flush, .errorNumber = EIO, .nameEnding = ".partial"});
    const auto phone = world.phone();
    world.offer(*phone, "a.txt");
    world.sendData(*phone, "0123456789");
    world.send(*phone, Row::done());
    EXPECT_THAT(world.failureTexts(), testing::ElementsAre("file write failed: Input/output error"));
}

} // namespace
} // namespace orlinth
