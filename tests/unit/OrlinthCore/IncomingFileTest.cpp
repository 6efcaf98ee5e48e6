#include "OrlinthCore/Receiving/IncomingFile.h"

#include "OrlinthCore/Receiving/PartialMeta.h"
#include "OrlinthCore/Receiving/ReceiveError.h"
#include "fakes/World.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

namespace orlinth {
namespace {

using fakes::CrashKind;
using fakes::MemoryFileSystem;
using fakes::Operation;
using platform::Path;

const Path folder = "/downloads";
const Path partial = folder / "a.txt.partial";
const Path sidecar = folder / "a.txt.partial.meta.json";

const std::string phone = "hSDwCYkwp1R0i33ctD73Wg2/Og0mOBr066SpjqqbTmo=";

/// As much as makes the receiver write back.
const Bytes eightMebibytes(8 << 20, std::byte{'x'});

TransportMessage::FileOffer offerOf(const std::string& transferId) {
    return {.name = "a.txt", .size = 10, .mime = "text/plain", .transfer_id = transferId};
}

class IncomingFiles : public testing::Test {
protected:
    IncomingFiles() { world.files.putFolder(folder); }

    [[nodiscard]] IncomingFile begin(const std::string& transferId = "ID-1") {
        return IncomingFile::begin({.system = world.system, .delivered = delivered, .downloadsDir = folder}, phone,
                                   offerOf(transferId), world.clock.now());
    }
    /// What is left of the names and what was flushed of the data, if the power fails now.
    [[nodiscard]] std::unique_ptr<MemoryFileSystem> afterPowerCut() const {
        return world.files.afterCrash(CrashKind::powerCut);
    }

    fakes::World world;
    DeliveredTransfers delivered{world.system};
};

TEST_F(IncomingFiles, FlushDataAndFolderOnceEachIfTheyAreComplete) {
    IncomingFile file = begin();
    file.append(asBytes("0123456789"));
    EXPECT_EQ(world.files.count(Operation::flush) + world.files.count(Operation::flushDirectory), 0U)
        << "nobody waits for the disk behind the lock on the folder";
    static_cast<void>(file.finish("192.168.1.7:1"));
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
    static_cast<void>(file.finish("192.168.1.7:1"));
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
    const std::optional<PartialMeta> meta = PartialMetaIO::load(*next, partial);
    ASSERT_TRUE(meta);
    EXPECT_EQ(meta->transfer_id, "ID-1");
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
    EXPECT_TRUE(PartialMetaIO::load(*next, partial));
}

TEST_F(IncomingFiles, KeepWhatThereIsToResumeThroughAPowerCutAtOnce) {
    world.files.put(partial, "01234");
    world.files.put(sidecar, R"({"transfer_id":"ID-1","advertised_size":10,"started_at_epoch_ms":5})");
    IncomingFile file = begin();
    EXPECT_EQ(file.bytesWritten(), 5);
    for (const CrashKind kind : fakes::allCrashKinds) {
        const std::optional<PartialMeta> meta = PartialMetaIO::load(*world.files.afterCrash(kind), partial);
        ASSERT_TRUE(meta) << static_cast<int>(kind);
        EXPECT_EQ(meta->transfer_id, "ID-1");
    }
}

TEST_F(IncomingFiles, AreNeverTakenForTheTransferOfASidecarThatLayThere) {
    world.files.put(sidecar, R"({"transfer_id":"older","advertised_size":10,"started_at_epoch_ms":5})");
    IncomingFile file = begin();
    file.append(asBytes("01234"));
    for (const CrashKind kind : fakes::allCrashKinds) {
        const auto next = world.files.afterCrash(kind);
        const std::optional<PartialMeta> meta = PartialMetaIO::load(*next, partial);
        EXPECT_TRUE(meta && meta->transfer_id == "ID-1") << static_cast<int>(kind);
    }
}

TEST_F(IncomingFiles, StartAnewUnderAnotherNameIfAPowerCutTookTheSidecar) {
    IncomingFile file = begin();
    file.append(asBytes("01234"));
    const auto next = world.files.afterCrash(CrashKind::powerCutNamesFirst);
    ASSERT_TRUE(next->exists(partial)) << "with zeros in it";
    platform::System onTheDisk{.network = world.network,
                               .clock = world.clock,
                               .files = *next,
                               .mimeTypes = world.mimeTypes,
                               .log = world.log,
                               .https = world.https,
                               .clipboard = world.clipboard,
                               .interfaces = world.interfaces,
                               .services = world.services,
                               .local = world.local,
                               .notifications = world.notifications,
                               .signals = world.signals,
                               .folders = world.folders,
                               .directories = world.system.directories,
                               .mainQueue = world.system.mainQueue};
    DeliveredTransfers deliveredThere(onTheDisk);
    IncomingFile again = IncomingFile::begin({.system = onTheDisk, .delivered = deliveredThere, .downloadsDir = folder},
                                             phone, offerOf("ID-1"), world.clock.now());
    EXPECT_EQ(again.bytesWritten(), 0);
    again.append(asBytes("0123456789"));
    const ReceivedFile received = again.finish("192.168.1.7:1");
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

} // namespace
} // namespace orlinth
