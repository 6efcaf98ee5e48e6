#include "OrlinthHost/HostError.h"
#include "OrlinthHost/Phones/RemovedPeers.h"
#include "OutboxWorld.h"

#include <gmock/gmock.h>

#include <cerrno>

namespace orlinth::host {
namespace {

using fakes::Operation;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::size_t chunkBytes = 1 << 20;
const platform::Path setAside = container / "OutboxSetAside";

/// What phones, disks and people do to a batch on its way.
class OutboxTroubleTest : public OutboxWorldTest {
protected:
    bool drop() { return world_.run(sender_->remove(BatchId(first))); }
    bool retry() { return sender_->retry(BatchId(first)); }
    void look() {
        world_.folders.change(outbox);
        pass(100ms);
    }
    /// Takes what comes in `count` connections, but hangs up on offers of this name.
    [[nodiscard]] Task<> takeAllBut(std::string name, int count) {
        for (int i = 0; i < count; ++i) {
            const auto phone = co_await ScriptedPeer::accept(world_, world_.phoneKey);
            const auto offer = co_await phone->expect<Row::FileOffer>();
            taken_.push_back(offer.name);
            if (offer.name != name) {
                co_await phone->send(Row::resume(offer.transfer_id, ByteOffset()));
                const Bytes data = co_await phone->receiveUntilDone();
            }
            phone->close();
        }
    }
    /// A batch of one file, of five pieces.
    void putLarge() {
        put(first, {"a.bin"});
        world_.files.put(outbox / first / "a.bin", std::string(5 * chunkBytes, 'x'));
    }
};

// Phones that take no proper leave

TEST_F(OutboxTroubleTest, BelievesAPhoneThatTakesItsTimeToClose) {
    put(first, {"a.txt"});
    world_.alongside(closeLate(50s));
    start();
    pass(49s);
    EXPECT_THAT(told(What::sent), IsEmpty());
    pass(2s);
    EXPECT_EQ(1U, told(What::sent).size());
    EXPECT_EQ(1U, attempts());
    EXPECT_FALSE(isThere(outbox / first));
}

TEST_F(OutboxTroubleTest, OffersAgainUnderTheSameIdWhereTheEndNeverCameThrough) {
    put(first, {"a.txt"});
    world_.alongside(vanishAtTheEnd(2));
    start();
    pass(119s);
    EXPECT_THAT(told(What::sent), IsEmpty());
    EXPECT_THAT(told(What::waiting), IsEmpty());
    pass(2s);
    EXPECT_EQ(DeliveryInDoubt::text, told(What::waiting).at(0).message);
    ASSERT_TRUE(isThere(outbox / first / "a.txt")) << "the only copy";
    world_.alongside(closeLate(0s));
    pass(6s);
    ASSERT_EQ(3U, ids_.size());
    EXPECT_EQ(ids_[0], ids_[1]);
    EXPECT_EQ(ids_[0], ids_[2]);
    EXPECT_EQ(1U, told(What::sent).size());
    EXPECT_FALSE(isThere(outbox / first));
}

TEST_F(OutboxTroubleTest, SendsNothingTwiceToAPhoneThatTakesEverythingAndNeverCloses) {
    put(first, {"a.txt"});
    world_.alongside(closeLate(1000s));
    start();
    pass(59s);
    EXPECT_THAT(told(What::sent), IsEmpty());
    pass(2s);
    EXPECT_EQ(1U, told(What::sent).size());
    EXPECT_FALSE(told(What::sent).at(0).isConfirmed);
    EXPECT_EQ(1U, attempts());
    EXPECT_FALSE(isThere(outbox / first));
}

TEST_F(OutboxTroubleTest, WaitsForAPhoneThatMayNotKnowThisComputerAnyMore) {
    put(first, {"a.txt"});
    const auto hangUp = [this]() -> Task<> {
        const auto phone = co_await ScriptedPeer::accept(world_, world_.phoneKey);
        static_cast<void>(co_await phone->expect<Row::FileOffer>());
        phone->close();
    };
    world_.alongside(hangUp());
    start();
    pass(1s);
    EXPECT_EQ("the phone ended the connection before it took the file; it may no longer know this computer",
              told(What::waiting).at(0).message);
    EXPECT_EQ(1U, attempts());
    pass(3s);
    EXPECT_EQ(1U, attempts()) << "it pauses as for a phone that is away";
}

TEST_F(OutboxTroubleTest, SendsAgainAfterARestartWhatEndedWhenItHadToLeave) {
    put(first, {"a.txt"});
    world_.alongside(closeLate(30s));
    start();
    pass(1s);
    stop();
    EXPECT_TRUE(isThere(outbox / first / "a.txt"));
    EXPECT_THAT(told(What::sent), IsEmpty());
    EXPECT_THAT(told(What::waiting), IsEmpty());
    world_.alongside(closeLate(0s));
    start();
    pass(1s);
    ASSERT_EQ(2U, ids_.size());
    EXPECT_EQ(ids_[0], ids_[1]);
    EXPECT_FALSE(isThere(outbox / first));
}

// Files that a phone cannot take

TEST_F(OutboxTroubleTest, SendsTheOthersFirstWhereAPhoneHangsUpOnOne) {
    put(first, {"bad", "good"}, 1);
    put(second, {"later"}, 2);
    world_.alongside(takeAllBut("bad", 5));
    start();
    pass(30s);
    EXPECT_THAT(taken_, ElementsAre("bad", "good", "later", "bad", "bad"));
    EXPECT_EQ(2U, told(What::sent).size());
    EXPECT_TRUE(isThere(outbox / first / "bad")) << "it is tried again";
    EXPECT_FALSE(isThere(outbox / second));
}

TEST_F(OutboxTroubleTest, KeepsTheOrderForAPhoneThatCannotBeReached) {
    put(first, {"a.txt", "b.txt"}, 1);
    start();
    pass(4s);
    ASSERT_EQ(1U, attempts());
    world_.alongside(take(2));
    pass(3s);
    EXPECT_THAT(taken_, ElementsAre("a.txt", "b.txt"));
}

// Pauses

TEST_F(OutboxTroubleTest, MakesLongerPausesForAPhoneThatKeepsNothingOfWhatItTakes) {
    putLarge();
    world_.alongside(takePieces({0, 0, 0, 0}));
    start();
    EXPECT_THAT(gapsUntil(200), ElementsAre(5, 15, 60));
}

TEST_F(OutboxTroubleTest, MakesShortPausesForAPhoneThatKeepsWhatItTakes) {
    putLarge();
    world_.alongside(takePieces({0, chunkBytes, 2 * chunkBytes, 2 * chunkBytes, 2 * chunkBytes}));
    start();
    EXPECT_THAT(gapsUntil(150), ElementsAre(5, 5, 5, 15, 60));
}

TEST_F(OutboxTroubleTest, MakesAShortPauseWhenAPhoneThatWasAwayHasTakenAPiece) {
    putLarge();
    start();
    pass(100s); // the next attempt is at 380
    world_.alongside(takePieces({0}));
    EXPECT_THAT(gapsUntil(390), ElementsAre(5));
}

TEST_F(OutboxTroubleTest, GoesOnAtOnceOnlyOnceInARowForAPhoneThatIsHeardOfDuringEachAttempt) {
    world_.network.makeSilent("203.0.113.2");
    put(first, {"a.txt"});
    start();
    // as one that is woken by each attempt and cannot be reached all the same; an attempt takes five seconds
    EXPECT_THAT(gapsUntil(400, [this] { sender_->heardOf(world_.phoneRecord()); }),
                ElementsAre(5, 10, 5, 20, 5, 65, 5));
}

TEST_F(OutboxTroubleTest, DoesNotTakeItsOwnEchoForNews) {
    put(first, {"a.txt"});
    start();
    pass(1s);
    EXPECT_EQ(1U, attempts());
    const auto hear = [this] {
        sender_->heardOf(world_.phoneRecord());
        pass(100ms);
        return attempts();
    };
    EXPECT_EQ(2U, hear()) << "it may have come by itself";
    EXPECT_EQ(2U, hear());
    pass(14s);
    EXPECT_EQ(2U, hear()) << "the pause is the longer one";
    pass(2s);
    EXPECT_EQ(3U, attempts());
    EXPECT_EQ(4U, hear());
    pass(55s);
    EXPECT_EQ(4U, hear());
    pass(5s);
    EXPECT_EQ(5U, hear()) << "after a minute it is news";
    pass(5s);
    EXPECT_EQ(6U, attempts()) << "and the pauses are short again";
}

// Folders that are somewhere else

TEST_F(OutboxTroubleTest, TouchesNothingBehindALinkThatTookAFoldersPlace) {
    put(first, {"a.txt"});
    start();
    pass(1s);
    moveBehindALink();
    look();
    EXPECT_EQ("content of a.txt", world_.files.content("/mnt/moved/a.txt"));
    EXPECT_TRUE(isThere("/mnt/moved/manifest.json"));
    EXPECT_TRUE(isThere(outbox / first)) << "the link itself";
    EXPECT_FALSE(isThere(memory / first));
    const std::size_t before = attempts();
    pass(1000s);
    EXPECT_EQ(before, attempts()) << "it was taken back";
    EXPECT_THAT(failures(), IsEmpty());
}

TEST_F(OutboxTroubleTest, TouchesNothingBehindALinkThatCameDuringASend) {
    put(first, {"a.txt"});
    world_.alongside(closeLate(10s));
    start();
    pass(1s);
    moveBehindALink();
    pass(10s);
    EXPECT_EQ(1U, told(What::sent).size());
    EXPECT_EQ(1U, told(What::done).size());
    EXPECT_TRUE(isThere("/mnt/moved/a.txt"));
    EXPECT_TRUE(isThere("/mnt/moved/manifest.json"));
    EXPECT_FALSE(isThere(memory / first));
}

TEST_F(OutboxTroubleTest, TouchesNothingBehindALinkWhoseBatchIsDropped) {
    put(first, {"a.txt"});
    start();
    pass(1s);
    moveBehindALink();
    EXPECT_TRUE(drop());
    EXPECT_TRUE(isThere("/mnt/moved/a.txt"));
    EXPECT_FALSE(isThere(memory / first));
}

TEST_F(OutboxTroubleTest, TakesNoBatchForGoneThatItCannotLookAt) {
    for (const Operation operation : {Operation::open, Operation::status, Operation::list}) {
        for (const int errorNumber : {EMFILE, ENFILE, ENOMEM, EIO, EACCES}) {
            SCOPED_TRACE(testing::Message() << static_cast<int>(operation) << " " << errorNumber);
            put(first, {"a.txt"});
            start();
            pass(1s);
            for (const char* name : {first, "Outbox"}) {
                world_.files.addFault({.operation = operation, .errorNumber = errorNumber, .nameEnding = name});
                look();
                world_.files.clearFaults();
                EXPECT_EQ("content of a.txt", world_.files.content(outbox / first / "a.txt"));
                EXPECT_TRUE(isThere(memory / first));
            }
            EXPECT_TRUE(drop()) << "it was not forgotten";
            stop();
        }
    }
    EXPECT_THAT(failures(), IsEmpty());
}

TEST_F(OutboxTroubleTest, RemembersWhatIsSentOfABatchThatItCannotLookAtWhenItStarts) {
    put(first, {"a.txt", "b.txt"});
    world_.alongside(take(1));
    start();
    pass(1s);
    stop();
    ASSERT_THAT(taken_, ElementsAre("a.txt"));
    for (const Operation operation : {Operation::open, Operation::status}) {
        world_.files.addFault({.operation = operation, .errorNumber = EMFILE, .nameEnding = first});
        start();
        stop();
        world_.files.clearFaults();
    }
    world_.alongside(take(1));
    start();
    pass(1s);
    EXPECT_THAT(taken_, ElementsAre("a.txt", "b.txt"));
}

TEST_F(OutboxTroubleTest, ClearsNoBatchWhoseManifestItCannotLookAt) {
    put(first, {"a.txt"}); // older than a minute, by the tests' clock
    world_.files.addFault({.operation = Operation::status, .errorNumber = EIO, .nameEnding = "manifest.json"});
    start();
    pass(130s);
    EXPECT_EQ("content of a.txt", world_.files.content(outbox / first / "a.txt"));
    world_.files.clearFaults();
    world_.alongside(take(1));
    ring();
    pass(1s);
    EXPECT_THAT(taken_, ElementsAre("a.txt"));
}

TEST_F(OutboxTroubleTest, ClearsNoBatchThatItHasTakenIn) {
    put(first, {"a.txt"});
    start();
    pass(1s);
    world_.files.remove(outbox / first / "manifest.json");
    look();
    EXPECT_EQ("content of a.txt", world_.files.content(outbox / first / "a.txt"));
}

TEST_F(OutboxTroubleTest, ServesTheOtherBatchesWhereOneIsClosedToIt) {
    put(first, {"a.txt"});
    world_.files.putFolder(outbox / second, 0000);
    world_.alongside(take(1));
    start();
    pass(1s);
    EXPECT_THAT(taken_, ElementsAre("a.txt"));
}

TEST_F(OutboxTroubleTest, TellsOnceThatThereCanBeNoOutbox) {
    world_.files.put(container, "a file is in its place");
    start();
    pass(100s);
    const std::vector<Told> errors = told(What::noOutbox);
    ASSERT_EQ(1U, errors.size());
    EXPECT_THAT(errors[0].message,
                AllOf(HasSubstr("there is no outbox, and none can be made"), HasSubstr(": File exists")));
    world_.files.remove(container);
    pass(2s);
    world_.alongside(take(1));
    put(first, {"a.txt"});
    ring();
    pass(1s);
    EXPECT_THAT(taken_, ElementsAre("a.txt"));
}

// Failures that are told

TEST_F(OutboxTroubleTest, SaysThatADropDidNotRemoveTheBatch) {
    put(first, {"a.txt"});
    start();
    pass(1s);
    world_.files.addFault({.operation = Operation::remove, .errorNumber = EACCES, .nameEnding = "a.txt"});
    EXPECT_EQ("it cannot be removed: Permission denied",
              world_.failure<HostError>(sender_->remove(BatchId(first))).description());
    EXPECT_TRUE(isThere(setAside / first / "a.txt"));
    EXPECT_EQ(1U, failures().size());
    world_.files.clearFaults();
    EXPECT_TRUE(retry());
    pass(100ms);
    EXPECT_TRUE(drop());
}

TEST_F(OutboxTroubleTest, RetriesABatchThatCouldNotBeSetAside) {
    world_.files.put(outbox / first / "manifest.json", "{");
    world_.files.addFault({.operation = Operation::rename, .errorNumber = EACCES});
    start();
    pass(1s);
    ASSERT_EQ(1U, failures().size());
    world_.files.clearFaults();
    put(first, {"a.txt"}); // somebody has mended it
    world_.alongside(take(1));
    EXPECT_TRUE(retry());
    pass(1s);
    EXPECT_THAT(taken_, ElementsAre("a.txt"));
}

TEST_F(OutboxTroubleTest, SaysOfABatchWhoseNameIsTakenThatItIsLeftToPeople) {
    world_.files.put(setAside / first / "manifest.json", "{");
    world_.files.put(outbox / first / "manifest.json", "{");
    start();
    pass(1s);
    EXPECT_EQ((setAside / first).string() + " 2", told(What::setAside).at(0).where.string());
}

TEST_F(OutboxTroubleTest, TriesAgainInALiveBatchWhatWasDeclined) {
    pair({world_.phoneRecord(), tabletRecord()});
    put(first, {"a.txt"}, 1000, std::vector{tabletRecord().peer_pubkey, world_.phoneRecord().peer_pubkey});
    world_.alongside(answer(Row::decline(), 1));
    start();
    pass(1s);
    ASSERT_TRUE(isThere(outbox / first)) << "the tablet is away";
    world_.alongside(take(1));
    EXPECT_TRUE(retry());
    pass(1s);
    EXPECT_THAT(taken_, ElementsAre("a.txt"));
}

TEST_F(OutboxTroubleTest, NotesLaterWhatItCouldNotNoteWhenItWasSent) {
    pair({world_.phoneRecord(), tabletRecord()});
    put(first, {"a.txt"}, 1000, std::vector{tabletRecord().peer_pubkey, world_.phoneRecord().peer_pubkey});
    world_.alongside(closeLate(10s));
    start();
    pass(10ms);
    world_.files.addFault({.operation = Operation::write, .errorNumber = ENOSPC});
    pass(5s);
    EXPECT_FALSE(told(What::notSaved).empty());
    world_.files.clearFaults();
    pass(10s);
    ASSERT_EQ(1U, told(What::sent).size());
    EXPECT_FALSE(OutboxState::load(world_.files, memory / first).value().phones.at(1).isOpen("a.txt"));
}

TEST_F(OutboxTroubleTest, TellsOnceThatItCanNoteNothing) {
    std::vector<std::string> names;
    for (int i = 10; i < 50; ++i) { // more than get their ids at once
        names.push_back(std::to_string(i) + ".txt");
    }
    put(first, names);
    world_.alongside(take(40));
    start();
    pass(10ms);
    world_.files.addFault({.operation = Operation::write, .errorNumber = ENOSPC});
    pass(1s);
    EXPECT_EQ(names, taken_);
    EXPECT_EQ(1U, told(What::notSaved).size());
}

// Batches without a choice

TEST_F(OutboxTroubleTest, DoesNotSendToAnotherPhoneThanTheOneThatWasThere) {
    PeerRecord record = world_.phoneRecord();
    record.paired_at_epoch_ms = fromEpochMilliseconds(2000);
    pair({record});
    RemovedPeers(world_.files, home_.dataDirectory()).add(tabletKey_.publicKey());
    put(first, {"a.txt"}, 1000);
    world_.alongside(take(1));
    start();
    pass(1s);
    EXPECT_EQ(0U, attempts());
    EXPECT_EQ("the only phone that was paired when it was shared is not paired any more", failures().at(0).message);
    ASSERT_TRUE(isThere(setAside / first / "a.txt"));
    EXPECT_TRUE(retry()) << "who asks for it again, means the phone that is there";
    pass(1s);
    EXPECT_THAT(taken_, ElementsAre("a.txt"));
}

TEST_F(OutboxTroubleTest, SendsToTheOnlyPhoneWhereNoneWasRemoved) {
    PeerRecord record = world_.phoneRecord();
    record.paired_at_epoch_ms = fromEpochMilliseconds(2000); // it may have been paired anew
    pair({record});
    put(first, {"a.txt"}, 1000);
    world_.alongside(take(1));
    start();
    pass(1s);
    EXPECT_THAT(taken_, ElementsAre("a.txt"));
}

} // namespace
} // namespace orlinth::host
