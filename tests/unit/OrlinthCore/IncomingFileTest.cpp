#include "OrlinthCore/Receiving/Downloads.h"
#include "OrlinthCore/Receiving/ReceiveError.h"
#include "fakes/Sidecar.h"
#include "fakes/World.h"
#include "platform/Spawn.h"

#include <asio/cancellation_signal.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <utility>

namespace orlinth {
namespace {

using fakes::CrashKind;
using fakes::MemoryFileSystem;
using fakes::Operation;
using platform::Path;

const Path folder = "/downloads";
const Path partial = folder / "a.txt.partial";
const Path sidecar = folder / "a.txt.partial.meta.json";

const PeerKey phone{"hSDwCYkwp1R0i33ctD73Wg2/Og0mOBr066SpjqqbTmo="};

/// As much as makes the receiver write back.
const Bytes eightMebibytes(8 << 20, std::byte{'x'});

TransportMessage::FileOffer offerOf(const std::string& transferId) {
    return {.name = "a.txt", .size = 10, .mime = "text/plain", .transfer_id = transferId};
}

class IncomingFiles : public testing::Test {
protected:
    IncomingFiles() { world.files.putFolder(folder); }

    [[nodiscard]] IncomingFile begin(const std::string& transferId = "ID-1", const PeerKey& from = phone) {
        return world.run(downloads.begin(from, offerOf(transferId), world.clock.now()));
    }
    /// What is left of the names and what was flushed of the data, if the power fails now.
    [[nodiscard]] std::unique_ptr<MemoryFileSystem> afterPowerCut() const {
        return world.files.afterCrash(CrashKind::powerCut);
    }

    ReceivedFile finish(IncomingFile& file) { return world.run(downloads.finish(file, "192.168.1.7:1")); }

    fakes::World world;
    Downloads downloads{world.system.storage(), world.queues, folder};
};

TEST_F(IncomingFiles, FlushDataAndFolderOnceEachIfTheyAreComplete) {
    IncomingFile file = begin();
    file.append(asBytes("0123456789"));
    EXPECT_EQ(world.files.count(Operation::flush) + world.files.count(Operation::flushDirectory), 0U)
        << "nobody waits for the disk behind the lock on the folder";
    finish(file);
    EXPECT_EQ(world.files.count(Operation::flush), 1U);
    EXPECT_EQ(world.files.count(Operation::flushDirectory), 1U);
    EXPECT_EQ(afterPowerCut()->content(folder / "a.txt"), "0123456789");
}

TEST_F(IncomingFiles, LeaveNoSidecarThatAPowerCutCouldBringBack) {
    {
        const IncomingFile interrupted = begin(); // flushes its sidecar
    }
    ASSERT_TRUE(afterPowerCut()->exists(sidecar));
    IncomingFile file = begin();
    finish(file);
    for (const CrashKind kind : fakes::allCrashKinds) {
        EXPECT_FALSE(world.files.afterCrash(kind)->exists(sidecar)) << static_cast<int>(kind);
    }
}

TEST_F(IncomingFiles, CanBeResumedAfterAPowerCutOnceMuchHasCome) {
    IncomingFile file = begin();
    file.append(ByteView(eightMebibytes).first(eightMebibytes.size() - 1));
    EXPECT_FALSE(afterPowerCut()->exists(sidecar));
    file.append(asBytes("x"));
    const auto next = afterPowerCut();
    EXPECT_TRUE(next->exists(partial));
    const std::optional<PartialMeta> meta = fakes::sidecarOf(*next, partial);
    ASSERT_TRUE(meta);
    EXPECT_EQ(meta->transfer_id, TransferId("ID-1"));
    const std::size_t flushes = world.files.count(Operation::flush);
    file.append(eightMebibytes);
    EXPECT_EQ(world.files.count(Operation::flush), flushes) << "once is enough";
}

TEST_F(IncomingFiles, CanBeResumedAfterAPowerCutOnceTheyWereGivenUp) {
    {
        IncomingFile file = begin();
        file.append(asBytes("01234"));
    }
    const auto next = afterPowerCut();
    EXPECT_EQ(next->content(partial), "01234");
    EXPECT_TRUE(fakes::sidecarOf(*next, partial));
}

TEST_F(IncomingFiles, KeepWhatThereIsToResumeThroughAPowerCutAtOnce) {
    world.files.put(partial, "01234");
    world.files.put(sidecar, R"({"transfer_id":"ID-1","advertised_size":10,"started_at_epoch_ms":5})");
    IncomingFile file = begin();
    EXPECT_EQ(file.bytesWritten(), 5);
    for (const CrashKind kind : fakes::allCrashKinds) {
        const std::optional<PartialMeta> meta = fakes::sidecarOf(*world.files.afterCrash(kind), partial);
        ASSERT_TRUE(meta) << static_cast<int>(kind);
        EXPECT_EQ(meta->transfer_id, TransferId("ID-1"));
    }
}

TEST_F(IncomingFiles, AreNeverTakenForTheTransferOfASidecarThatLayThere) {
    world.files.put(sidecar, R"({"transfer_id":"older","advertised_size":10,"started_at_epoch_ms":5})");
    IncomingFile file = begin();
    file.append(asBytes("01234"));
    for (const CrashKind kind : fakes::allCrashKinds) {
        const auto next = world.files.afterCrash(kind);
        const std::optional<PartialMeta> meta = fakes::sidecarOf(*next, partial);
        EXPECT_TRUE(meta && meta->transfer_id == TransferId("ID-1")) << static_cast<int>(kind);
    }
}

TEST_F(IncomingFiles, StartAnewUnderAnotherNameIfAPowerCutTookTheSidecar) {
    IncomingFile file = begin();
    file.append(asBytes("01234"));
    const auto next = world.files.afterCrash(CrashKind::powerCutNamesFirst);
    ASSERT_TRUE(next->exists(partial)) << "with zeros in it";
    Downloads there(world.systemOn(*next).storage(), world.queues, folder);
    IncomingFile again = world.run(there.begin(phone, offerOf("ID-1"), world.clock.now()));
    EXPECT_EQ(again.bytesWritten(), 0);
    again.append(asBytes("0123456789"));
    const ReceivedFile received = world.run(there.finish(again, "192.168.1.7:1"));
    EXPECT_EQ(received.savedAt, folder / "a 2.txt");
    EXPECT_EQ(next->content(received.savedAt), "0123456789");
}

TEST_F(IncomingFiles, ReportASidecarThatCannotBeFlushed) {
    IncomingFile file = begin();
    world.files.addFault({.operation = Operation::flush, .errorNumber = EIO, .nameEnding = ".meta.json"});
    try {
        file.append(eightMebibytes);
        ADD_FAILURE() << "no error";
    } catch (const ReceiveError& error) {
        EXPECT_EQ(error.which(), ReceiveError::Case::fileWriteFailed);
        EXPECT_THAT(error.description(), testing::HasSubstr("meta write: Input/output error"));
    }
}

// ---- somebody else who may write in the folder

/// Does something once, right before the first such operation on this path.
void rightBefore(MemoryFileSystem& files, Operation operation, const Path& path, const std::function<void()>& action) {
    files.beforeEach([operation, path, action, done = false](Operation now, const Path& where) mutable {
        if (now == operation && where == path && !std::exchange(done, true)) {
            action();
        }
    });
}

const Path precious = "/home/ann/.bashrc";

TEST_F(IncomingFiles, ReplaceALinkInTheSidecarsPlaceItself) {
    world.files.put(precious, "precious");
    world.files.putLink(sidecar, precious);
    IncomingFile file = begin();
    EXPECT_EQ(world.files.content(precious), "precious");
    ASSERT_TRUE(fakes::sidecarOf(world.files, partial));
    file.append(asBytes("0123456789"));
    EXPECT_EQ(finish(file).savedAt, folder / "a.txt");
    EXPECT_EQ(world.files.content(precious), "precious");
    EXPECT_EQ(world.files.allFiles().front(), (folder / "a.txt").native());
}

TEST_F(IncomingFiles, DoNotFollowALinkThatIsPutInTheSidecarsPlaceMeanwhile) {
    world.files.put(precious, "precious");
    IncomingFile file = begin();
    world.files.putLink(sidecar, precious);
    file.append(eightMebibytes); // flushes the sidecar
    EXPECT_EQ(world.files.content(precious), "precious");
    EXPECT_TRUE(fakes::sidecarOf(world.files, partial)) << "there is one again";
    world.files.putLink(sidecar, precious);
    finish(file);
    EXPECT_EQ(world.files.content(precious), "precious");
    EXPECT_FALSE(world.files.exists(sidecar));
}

TEST_F(IncomingFiles, TakeTheNextNameIfAnythingIsPutInThePartialsPlaceJustNow) {
    const std::vector<std::function<void()>> things{
        [this] { world.files.putLink(partial, precious); }, [this] { world.files.putSpecial(partial); },
        [this] { world.files.putFolder(partial); }, [this] { world.files.put(partial, "somebody's"); }};
    for (const std::function<void()>& put : things) {
        world.files.put(precious, "precious");
        rightBefore(world.files, Operation::open, partial, put);
        IncomingFile file = begin();
        file.append(asBytes("0123456789"));
        const ReceivedFile received = finish(file);
        EXPECT_EQ(received.savedAt, folder / "a 2.txt");
        EXPECT_EQ(world.files.content(received.savedAt), "0123456789");
        EXPECT_EQ(world.files.content(precious), "precious");
        world.files.remove(received.savedAt);
        world.files.putSpecial(partial);
        world.files.remove(partial);
    }
}

TEST_F(IncomingFiles, AreNotContinuedInAFileThatIsPutInThePartialsPlaceJustNow) {
    const std::string ours = R"({"transfer_id":"ID-1","advertised_size":10,"started_at_epoch_ms":5})";
    for (const Operation moment : {Operation::open, Operation::lock}) {
        world.files.put(partial, "01234");
        world.files.put(sidecar, ours);
        world.files.put("/elsewhere/stranger", "xxxxx");
        world.files.setOwner("/elsewhere/stranger", 1001);
        rightBefore(world.files, moment, partial, [this] { world.files.swapIn("/elsewhere/stranger", partial); });
        IncomingFile file = begin();
        EXPECT_EQ(file.bytesWritten(), 0) << "the stranger's content is nobody's beginning";
        file.append(asBytes("0123456789"));
        EXPECT_EQ(finish(file).savedAt, folder / "a 2.txt");
        EXPECT_EQ(world.files.content(partial), "xxxxx");
        world.files.remove(folder / "a 2.txt");
        world.files.remove("/home/ann/.local/share/Orlinth/delivered.jsonl");
    }
}

TEST_F(IncomingFiles, NeverDeliverAFileThatWasPutInThePartialsPlace) {
    for (const Operation moment : {Operation::status, Operation::rename}) {
        world.files.put("/elsewhere/stranger", "not what the phone has sent");
        IncomingFile file = begin();
        file.append(asBytes("0123456789"));
        const Path where = moment == Operation::rename ? folder / "a.txt" : partial;
        rightBefore(world.files, moment, where, [this] { world.files.swapIn("/elsewhere/stranger", partial); });
        try {
            finish(file);
            ADD_FAILURE() << "no error";
        } catch (const ReceiveError& error) {
            EXPECT_EQ(error.description(), "file write failed: rename: another program has replaced a.txt.partial");
        }
        EXPECT_FALSE(world.files.exists(folder / "a.txt"));
        EXPECT_EQ(world.files.content(partial), "not what the phone has sent") << "where he has put it";
        EXPECT_FALSE(DeliveredTransfers(world.system.storage()).find(phone, TransferId("ID-1")));
        world.files.beforeEach({});
        world.files.remove(partial);
    }
}

TEST_F(IncomingFiles, AreDeliveredIfSomebodyTakesTheFileAwayAtOnce) {
    IncomingFile file = begin();
    file.append(asBytes("0123456789"));
    bool isMoved = false;
    world.files.beforeEach([&](Operation now, const Path& where) {
        isMoved = isMoved || now == Operation::rename;
        if (isMoved && now == Operation::status && where == folder / "a.txt") {
            world.files.swapIn(where, "/sorted/a.txt");
        }
    });
    finish(file);
    EXPECT_EQ(world.files.content("/sorted/a.txt"), "0123456789");
}

TEST_F(IncomingFiles, StayInTheFolderInWhichTheyBeganAndAreNotDeliveredIfThatWasMoved) {
    IncomingFile file = begin();
    world.files.swapIn(folder, "/trash/folder");
    world.files.put("/home/ann/secret/x", "");
    world.files.putLink(folder, "/home/ann/secret");
    file.append(asBytes("0123456789"));
    try {
        finish(file);
        ADD_FAILURE() << "no error";
    } catch (const ReceiveError& error) {
        EXPECT_EQ(error.description(), "file write failed: the downloads folder was moved or replaced");
    }
    EXPECT_EQ(world.files.content("/trash/folder/a.txt.partial"), "0123456789");
    EXPECT_FALSE(world.files.exists("/home/ann/secret/a.txt"));
    EXPECT_FALSE(DeliveredTransfers(world.system.storage()).find(phone, TransferId("ID-1")));
}

TEST_F(IncomingFiles, AreNotContinuedByAnotherPhone) {
    {
        IncomingFile file = begin();
        file.append(asBytes("01234"));
    }
    {
        IncomingFile other = begin("ID-1", PeerKey("3p7bfXt9wbTTW2HC7OQ1Nz+DQ8hbeGdNrfx+FG+IK08="));
        EXPECT_EQ(other.bytesWritten(), 0);
        other.append(asBytes("98765"));
    }
    EXPECT_EQ(world.files.content(partial), "01234");
    EXPECT_EQ(world.files.content(folder / "a 2.txt.partial"), "98765");
    EXPECT_EQ(begin().bytesWritten(), 5);
}

TEST_F(IncomingFiles, AreTheOwnersAloneUntilTheyAreWhole) {
    const auto permissions = [this](const Path& path) { return world.files.status(path).value().permissions; };
    {
        IncomingFile file = begin();
        EXPECT_EQ(permissions(partial), 0600U) << "nobody else can hold its lock";
        EXPECT_EQ(permissions(folder / "a.txt.partial.meta.json"), 0600U) << "it says who sends what";
    }
    EXPECT_EQ(permissions(partial), 0600U);
    world.files.setPermissions(partial, 0644); // as older versions have left it
    IncomingFile file = begin();
    EXPECT_EQ(permissions(partial), 0600U);
    world.files.addFault({.operation = Operation::rename, .errorNumber = EIO, .nameEnding = "a.txt"});
    EXPECT_THROW(finish(file), ReceiveError);
    EXPECT_EQ(permissions(partial), 0600U) << "also when it cannot be moved into its place";
    world.files.clearFaults();
    file.close();
    IncomingFile again = begin();
    finish(again);
    EXPECT_EQ(permissions(folder / "a.txt"), 0644U);
}

TEST_F(IncomingFiles, ComeToAFileSystemWithoutPermissionsToo) {
    world.files.addFault({.operation = Operation::setPermissions, .errorNumber = EPERM});
    IncomingFile file = begin();
    EXPECT_EQ(finish(file).savedAt, folder / "a.txt");
}

// ---- turns

const Path data = "/home/ann/.local/share/Orlinth";

TEST_F(IncomingFiles, TakeTheirTurnsByAFileThatOnlyTheOwnerMayLock) {
    const platform::FileStatus status = world.files.status(folder).value();
    const Path lock = data / ("downloads-1-" + std::to_string(status.inode) + ".lock");
    int held = 0;
    world.files.beforeEach([&](Operation operation, const Path& path) {
        EXPECT_FALSE(world.files.isLocked(folder)) << "everybody who may read it could keep us away from it";
        const bool choosesNames = operation == Operation::create && path == partial;
        const bool moves = operation == Operation::rename && path == folder / "a.txt";
        if (choosesNames || moves || (operation == Operation::open && path == partial)) {
            EXPECT_TRUE(world.files.isLocked(lock));
            ++held;
        }
        if (operation == Operation::flush || operation == Operation::flushDirectory) {
            EXPECT_FALSE(world.files.isLocked(lock)) << "nobody waits for the disk behind it";
        }
    });
    IncomingFile file = begin();
    file.append(asBytes("0123456789"));
    finish(file);
    EXPECT_EQ(held, 2);
    EXPECT_EQ(world.files.status(lock).value().permissions, 0600U);
    EXPECT_FALSE(world.files.isLocked(lock));
}

TEST_F(IncomingFiles, DoNotCareWhoHoldsALockOnTheFolder) {
    const auto held = world.files.open(folder, platform::OpenMode::read);
    ASSERT_TRUE(held->tryLock());
    IncomingFile file = begin();
    file.append(asBytes("0123456789"));
    EXPECT_EQ(finish(file).savedAt, folder / "a.txt");
}

TEST_F(IncomingFiles, WaitForAnotherProcessAsLongAsIsReasonable) {
    const Path lock = FolderTurns(world.system.storage()).lockFile(world.files.status(folder).value());
    world.files.put(lock, "");
    auto held = world.files.open(lock, platform::OpenMode::write);
    ASSERT_TRUE(held->tryLock());
    world.alongside([](fakes::World& there, std::unique_ptr<platform::File> mine) -> Task<> {
        co_await there.clock.sleep(FolderTurns::patience - 1s);
        there.folders.change("/home/ann/.local/share/Orlinth"); // somebody else has closed something
        co_await there.clock.sleep(500ms);
        mine.reset();
        there.folders.change("/home/ann/.local/share/Orlinth");
    }(world, std::move(held)));
    {
        const IncomingFile file = begin();
        EXPECT_DOUBLE_EQ(world.clock.elapsed(), FolderTurns::patience.count() - 0.5);
    }
    EXPECT_FALSE(world.folders.isWatched("/home/ann/.local/share/Orlinth")) << "only while somebody waits";
    held = world.files.open(lock, platform::OpenMode::write);
    ASSERT_TRUE(held->tryLock());
    const double start = world.clock.elapsed();
    try {
        static_cast<void>(begin());
        ADD_FAILURE() << "no error";
    } catch (const ReceiveError& error) {
        EXPECT_EQ(error.description(), "file write failed: another program holds the lock " + lock.native());
        EXPECT_EQ(error.which(), ReceiveError::Case::fileNotTaken) << "nothing is wrong with the folder";
    }
    EXPECT_NEAR(world.clock.elapsed() - start, FolderTurns::patience.count(), 0.1);
}

TEST_F(IncomingFiles, TryTheLockOnceMoreAtTheEndIfItCannotBeWatched) {
    const Path lock = FolderTurns(world.system.storage()).lockFile(world.files.status(folder).value());
    world.files.put(lock, "");
    auto held = world.files.open(lock, platform::OpenMode::write);
    ASSERT_TRUE(held->tryLock());
    world.folders.errorNumber = EMFILE;
    world.alongside([](fakes::World& there, std::unique_ptr<platform::File> mine) -> Task<> {
        co_await there.clock.sleep(1s);
        mine.reset();
    }(world, std::move(held)));
    const IncomingFile file = begin();
    EXPECT_DOUBLE_EQ(world.clock.elapsed(), FolderTurns::patience.count());
}

/// Takes a turn and keeps it for a second; notes when it came.
Task<> takeTurn(fakes::World& world, FolderTurns& turns, std::vector<int>& order, int number) {
    platform::FileStatus status;
    const FolderTurn turn = co_await turns.take(status);
    order.push_back(number);
    co_await world.clock.sleep(1s);
    order.push_back(number);
}

TEST(FolderTurnsOfOneProcess, ComeOneAfterTheOtherAndPassOverWhoeverIsCancelled) {
    fakes::World world;
    FolderTurns turns(world.system.storage());
    std::vector<int> order;
    asio::cancellation_signal stop;
    bool isCancelled = false;
    world.alongside(takeTurn(world, turns, order, 1));
    platform::spawn(world.context.get_executor(), takeTurn(world, turns, order, 2), stop.slot(),
                    [&](const std::exception_ptr& error) { isCancelled = error != nullptr; });
    world.alongside(takeTurn(world, turns, order, 3));
    // more than the patience with other processes
    for (int number = 4; number < 10; ++number) {
        world.alongside(takeTurn(world, turns, order, number));
    }
    world.context.restart();
    world.context.poll();
    EXPECT_THAT(order, testing::ElementsAre(1));
    stop.emit(asio::cancellation_type::terminal);
    fakes::runUntilIdle(world.context, world.clock);
    EXPECT_TRUE(isCancelled);
    EXPECT_THAT(order, testing::ElementsAre(1, 1, 3, 3, 4, 4, 5, 5, 6, 6, 7, 7, 8, 8, 9, 9));
}

} // namespace
} // namespace orlinth
