#include "OrlinthCore/Receiving/DeliveredTransfers.h"

#include "OrlinthCore/Receiving/Downloads.h"
#include "OrlinthCore/Receiving/ReceiveError.h"
#include "fakes/CrashTrials.h"
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
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const Path folder = "/downloads";
const Path file = folder / "film.mov";
const Path memory = "/home/ann/.local/share/Orlinth/delivered.jsonl";
const PeerKey phone{"hSDwCYkwp1R0i33ctD73Wg2/Og0mOBr066SpjqqbTmo="};
const PeerKey tablet{"3p7bfXt9wbTTW2HC7OQ1Nz+DQ8hbeGdNrfx+FG+IK08="};

template <typename First, typename Second>
concept FindsBy =
    requires(DeliveredTransfers& delivered, First first, Second second) { delivered.find(first, second); };

static_assert(FindsBy<PeerKey, TransferId>);
static_assert(!FindsBy<TransferId, PeerKey>, "a swapped pair would find nothing, and a file would come twice");
static_assert(!FindsBy<std::string, std::string>);

class DeliveredTransfersTest : public testing::Test {
protected:
    /// As a receiver does it.
    void deliver(const std::string& id, const Path& path = file, const PeerKey& from = phone) {
        intend(id, path, from);
        delivered.settle(from, TransferId(id));
    }
    void intend(const std::string& id, const Path& path = file, const PeerKey& from = phone) {
        if (!world.files.exists(path)) {
            world.files.put(path, "content of " + path.native());
        }
        delivered.intend(from, TransferId(id), path, *world.files.status(path));
    }
    [[nodiscard]] bool isKnown(const std::string& id, const PeerKey& from = phone) {
        return delivered.find(from, TransferId(id)).has_value();
    }
    /// What another process, or the next run, knows.
    [[nodiscard]] std::optional<DeliveredTransfers::Delivery> findElsewhere(const std::string& id) {
        return DeliveredTransfers(world.system.storage()).find(phone, TransferId(id));
    }
    [[nodiscard]] std::string text() const { return world.files.content(memory).value_or("(no file)"); }

    fakes::World world;
    DeliveredTransfers delivered{world.system.storage()};
};

TEST_F(DeliveredTransfersTest, AFolderThatHangsHoldsUpOnlyWhoLooksIntoIt) {
    deliver("ID-1");
    bool isFirst = true;
    world.files.beforeEach([&](Operation operation, const Path& path) {
        const bool isLook = operation == Operation::status && path == file;
        if (isLook && std::exchange(isFirst, false)) {
            world.files.put("/elsewhere/b.txt", "b"); // meanwhile, for another phone
            deliver("ID-2", "/elsewhere/b.txt", tablet);
        }
    });
    EXPECT_TRUE(isKnown("ID-1"));
    EXPECT_FALSE(isFirst);
    EXPECT_TRUE(isKnown("ID-2", tablet));
}

TEST_F(DeliveredTransfersTest, RememberWhatWasDeliveredAcrossRuns) {
    EXPECT_FALSE(isKnown("ID-1"));
    EXPECT_THAT(world.files.allFiles(), IsEmpty()) << "to look makes nothing";
    deliver("ID-1");
    const auto found = findElsewhere("ID-1");
    ASSERT_TRUE(found);
    EXPECT_EQ(found->path, file);
    EXPECT_EQ(found->size, static_cast<std::int64_t>(world.files.content(file)->size()));
    EXPECT_TRUE(found->isSettled);
    EXPECT_EQ(world.files.status(memory)->permissions, 0600U);
    EXPECT_EQ(world.files.status(memory.parent_path())->permissions, 0700U);
}

TEST_F(DeliveredTransfersTest, TellAnIntentionFromADelivery) {
    intend("ID-1");
    ASSERT_TRUE(findElsewhere("ID-1"));
    EXPECT_FALSE(findElsewhere("ID-1")->isSettled);
    delivered.settle(phone, TransferId("ID-1"));
    EXPECT_TRUE(findElsewhere("ID-1")->isSettled);
}

TEST_F(DeliveredTransfersTest, BelongToOnePhoneEach) {
    deliver("ID-1");
    EXPECT_FALSE(isKnown("ID-1", tablet));
    deliver("ID-1", folder / "other.mov", tablet);
    EXPECT_EQ(delivered.find(phone, TransferId("ID-1"))->path, file);
    EXPECT_EQ(delivered.find(tablet, TransferId("ID-1"))->path, folder / "other.mov");
}

TEST_F(DeliveredTransfersTest, AreOnlyFoundWhileTheirFilesLieThereUnchanged) {
    deliver("ID-1");
    const std::string content = world.files.content(file).value();
    world.files.put(file, content);
    EXPECT_FALSE(isKnown("ID-1")) << "another file with the same content";

    deliver("ID-2", folder / "longer");
    world.files.open(folder / "longer", platform::OpenMode::write)->write(Bytes(100));
    EXPECT_FALSE(isKnown("ID-2")) << "another size";

    deliver("ID-3", folder / "touched");
    world.files.open(folder / "touched", platform::OpenMode::write)->write(asBytes("content"));
    EXPECT_FALSE(isKnown("ID-3")) << "changed at another time";

    deliver("ID-4", folder / "removed");
    world.files.remove(folder / "removed");
    EXPECT_FALSE(isKnown("ID-4"));

    deliver("ID-5", folder / "moved");
    world.files.rename(folder / "moved", folder / "elsewhere");
    EXPECT_FALSE(isKnown("ID-5"));

    deliver("ID-6", folder / "folder now");
    world.files.remove(folder / "folder now");
    world.files.putFolder(folder / "folder now");
    EXPECT_FALSE(isKnown("ID-6"));
}

TEST_F(DeliveredTransfersTest, TakeInWhatOthersWriteMeanwhile) {
    DeliveredTransfers other(world.system.storage());
    deliver("ID-1");
    EXPECT_TRUE(other.find(phone, TransferId("ID-1")));
    deliver("ID-2", folder / "two");
    EXPECT_TRUE(other.find(phone, TransferId("ID-2")));
    other.intend(phone, TransferId("ID-3"), file, *world.files.status(file));
    EXPECT_TRUE(isKnown("ID-3"));
    world.files.remove(memory);
    EXPECT_FALSE(isKnown("ID-1")) << "somebody has deleted it";
    deliver("ID-4");
    EXPECT_TRUE(other.find(phone, TransferId("ID-4")));
    EXPECT_FALSE(other.find(phone, TransferId("ID-1")));
}

TEST_F(DeliveredTransfersTest, CostTwoShortLinesAndNoFlush) {
    deliver("ID-1");
    const std::size_t before = text().size();
    const std::size_t changes = world.files.mutations();
    deliver("ID-2");
    EXPECT_LT(text().size() - before, 800U);
    EXPECT_EQ(world.files.mutations() - changes, 2U) << "two writes";
    EXPECT_EQ(world.files.count(Operation::flush), 0U);
}

TEST_F(DeliveredTransfersTest, ForgetTheOldestWhenThereAreTooMany) {
    intend("0");
    DeliveredTransfers::Delivery one = delivered.find(phone, TransferId("0")).value();
    std::string lines;
    for (std::size_t i = 0; i < DeliveredTransfers::maxEntries; ++i) {
        one.transfer_id = TransferId(std::to_string(i));
        lines += DeliveredTransfers::encode(one);
    }
    world.files.put(memory, lines);
    EXPECT_TRUE(isKnown("0"));
    deliver("one more");
    EXPECT_FALSE(isKnown("0"));
    EXPECT_TRUE(isKnown("1"));
    EXPECT_TRUE(isKnown("one more"));
    EXPECT_EQ(DeliveredTransfers::decode(asBytes(text())).size(), DeliveredTransfers::maxEntries);
}

TEST_F(DeliveredTransfersTest, ForgetWhatIsOld) {
    deliver("ID-1");
    world.run(world.clock.sleep(DeliveredTransfers::maxAge - 1s));
    EXPECT_TRUE(isKnown("ID-1"));
    world.run(world.clock.sleep(2s));
    EXPECT_FALSE(isKnown("ID-1"));
}

TEST_F(DeliveredTransfersTest, WriteTheFileAnewWhenItHasGrown) {
    Path deep = folder;
    for (int i = 0; i < 15; ++i) {
        deep /= std::string(250, 'x');
    }
    constexpr int count = 800; // of 8 KiB each
    for (int i = 0; i < count; ++i) {
        deliver(std::to_string(i), deep);
    }
    EXPECT_LT(text().size(), static_cast<std::size_t>(DeliveredTransfers::compactionBytes) + 5000);
    EXPECT_GT(world.files.count(Operation::flush), 0U);
    EXPECT_LT(world.files.count(Operation::flush), 3U) << "not for each of them";
    EXPECT_TRUE(findElsewhere(std::to_string(count - 1)));
    EXPECT_TRUE(findElsewhere(std::to_string(count - 300)));
    EXPECT_EQ(world.files.status(memory)->permissions, 0600U);
}

TEST_F(DeliveredTransfersTest, SkipWhatCannotBeRead) {
    deliver("ID-1");
    const std::string good = text();
    for (const std::string& rubbish :
         {std::string("{"), std::string("\n\n"), std::string("null\n[]\n5\n{}\n"), std::string(1000, '\0'),
          std::string(R"({"phone":"x","transfer_id":"y","path":"relative","device":1,"inode":1,"size":1,)"
                      R"("modified_ns":1,"at_epoch_ms":1,"settled":true})"),
          std::string(DeliveredTransfers::maxLineBytes + 1, ' ') + good}) {
        world.files.put(memory, rubbish + "\n" + good);
        EXPECT_TRUE(isKnown("ID-1"));
        world.files.put(memory, good + rubbish);
        EXPECT_TRUE(isKnown("ID-1"));
        deliver("ID-2");
        EXPECT_TRUE(findElsewhere("ID-2")) << "a torn line does not take the next one along";
    }
}

TEST_F(DeliveredTransfersTest, CountAFileThatIsTooLargeAsEmptyAndReplaceIt) {
    deliver("ID-1");
    world.files.put(memory, text() + std::string(DeliveredTransfers::maxFileBytes, '\n'));
    EXPECT_FALSE(isKnown("ID-1"));
    deliver("ID-2");
    EXPECT_TRUE(findElsewhere("ID-2"));
    EXPECT_LT(text().size(), 1000U);
}

TEST_F(DeliveredTransfersTest, DoNotRememberAnIdWithoutBounds) {
    const std::string longest(DeliveredTransfers::maxIdBytes, 'x');
    deliver(longest);
    EXPECT_TRUE(isKnown(longest));
    deliver(longest + "x");
    EXPECT_FALSE(isKnown(longest + "x"));
}

TEST_F(DeliveredTransfersTest, AreLoggedAndNoFailureWhereTheyCannotBeSavedOrRead) {
    world.files.putFolder(memory);
    EXPECT_FALSE(isKnown("ID-1"));
    deliver("ID-1");
    EXPECT_FALSE(world.log.lines().empty());
    world.files.removeDirectory(memory);
    world.files.putSpecial(memory);
    deliver("ID-1");
    EXPECT_FALSE(isKnown("ID-1"));
    world.files.remove(memory);
    for (const Operation operation : {Operation::open, Operation::create, Operation::write, Operation::lock}) {
        world.files.addFault({.operation = operation, .errorNumber = EIO});
        EXPECT_NO_THROW(deliver("ID-2"));
        world.files.clearFaults();
        EXPECT_FALSE(findElsewhere("ID-2")) << static_cast<int>(operation);
    }
    deliver("ID-3");
    EXPECT_TRUE(findElsewhere("ID-3")) << "as soon as that is possible again";
}

TEST_F(DeliveredTransfersTest, HaveTheFormThatIsDocumented) {
    const DeliveredTransfers::Delivery delivery{.peerKey = phone,
                                                .transfer_id = TransferId("6F1C2B0E-4D0A-4E39-9C8A-2F5D7A1B3C4D"),
                                                .path = "/home/ann/Downloads/film.mov",
                                                .device = 65025,
                                                .inode = 1835031,
                                                .size = 1048576,
                                                .modified_ns = fromEpochNanoseconds(1731686400123456789),
                                                .at_epoch_ms = fromEpochMilliseconds(1731686400124),
                                                .isSettled = true};
    const std::string line = DeliveredTransfers::encode(delivery);
    EXPECT_EQ(line, "{\"at_epoch_ms\":1731686400124,\"device\":65025,\"inode\":1835031,"
                    "\"modified_ns\":1731686400123456789,\"path\":\"/home/ann/Downloads/film.mov\",\"phone\":"
                    "\"hSDwCYkwp1R0i33ctD73Wg2/Og0mOBr066SpjqqbTmo=\",\"settled\":true,\"size\":1048576,"
                    "\"transfer_id\":\"6F1C2B0E-4D0A-4E39-9C8A-2F5D7A1B3C4D\"}\n");
    EXPECT_THAT(DeliveredTransfers::decode(asBytes(line)), ElementsAre(delivery));
}

// ---- a kill at every point of a delivery, and the same offer once more

constexpr std::string_view content = "0123456789";
const TransportMessage::FileOffer offer{
    .name = "film.mov", .size = 10, .mime = "video/quicktime", .transfer_id = "ID-1"};

/// What a sender does that did not see the end: offers the file and sends what is asked for. Returns what was received,
/// and whether that was reported before.
std::pair<ReceivedFile, bool> deliverTo(fakes::World& world, MemoryFileSystem& disk) {
    Downloads downloads(world.systemOn(disk).storage(), world.queues, folder);
    IncomingFile incoming = world.run(downloads.begin(phone, offer, world.clock.now()));
    const auto offset = static_cast<std::size_t>(incoming.bytesWritten());
    if (offset < content.size()) {
        incoming.append(asBytes(content.substr(offset)));
    }
    const bool wasReported = incoming.delivered() != nullptr && incoming.delivered()->isSettled;
    ReceivedFile received = world.run(downloads.finish(incoming, "192.168.1.7:1"));
    return {std::move(received), wasReported};
}

/// The files in the folder that have come to their ends; without the temporary one of a sidecar that was not finished.
std::vector<std::string> copiesIn(const MemoryFileSystem& files) {
    std::vector<std::string> copies;
    for (const std::string& path : files.allFiles()) {
        const bool isFinal = path.find(".partial") == std::string::npos && !path.ends_with(".tmp");
        if (path.starts_with(folder.native()) && isFinal) {
            EXPECT_EQ(files.content(path), content) << path;
            copies.push_back(path);
        }
    }
    return copies;
}

TEST(DeliveredTransfersUnderKills, AreExactlyOneFileHoweverOftenTheyAreKilledAndOfferedAgain) {
    fakes::World world;
    int acknowledged = 0;
    fakes::forEveryCrash([](MemoryFileSystem& files) { files.putFolder(folder); },
                         [&](MemoryFileSystem& files) { static_cast<void>(deliverTo(world, files)); },
                         [&](const fakes::Aftermath& aftermath) {
                             const bool wasCutOff =
                                 aftermath.kind != CrashKind::processKill; // what was not flushed may be gone
                             const auto [received, wasReported] = deliverTo(world, aftermath.files);
                             EXPECT_EQ(aftermath.files.content(received.savedAt), content);
                             if (!wasCutOff) {
                                 EXPECT_THAT(copiesIn(aftermath.files), ElementsAre(received.savedAt.native()));
                                 EXPECT_FALSE(aftermath.files.exists(Path(received.savedAt) += ".partial.meta.json"));
                                 EXPECT_TRUE(wasReported || !aftermath.completed);
                                 acknowledged += wasReported || received.bytesReceivedThisSession == 0 ? 1 : 0;
                             }
                             EXPECT_LE(copiesIn(aftermath.files).size(), 2U);
                             const auto [again, wasReportedThen] = deliverTo(world, aftermath.files);
                             EXPECT_EQ(again.savedAt, received.savedAt);
                             EXPECT_TRUE(wasReportedThen) << "nobody is told twice";
                             EXPECT_LE(copiesIn(aftermath.files).size(), 2U);
                         });
    EXPECT_GT(acknowledged, 3) << "some kills hit behind the last byte";
}

TEST(DeliveredTransfersUnderKills, AreExactlyOneFileUnderTheNextNameToo) {
    fakes::World world;
    fakes::forEveryCrash([](MemoryFileSystem& files) { files.put(file, content); },
                         [&](MemoryFileSystem& files) { static_cast<void>(deliverTo(world, files)); },
                         [&](const fakes::Aftermath& aftermath) {
                             if (aftermath.kind == CrashKind::processKill) {
                                 const Path savedAt = deliverTo(world, aftermath.files).first.savedAt;
                                 EXPECT_NE(savedAt, file);
                                 EXPECT_THAT(copiesIn(aftermath.files),
                                             testing::UnorderedElementsAre(file.native(), savedAt.native()));
                             }
                         });
}

TEST(DeliveredTransfersUnderFailures, AreExactlyOneFileWhicheverStepFails) {
    fakes::World world;
    fakes::forEveryFailure(
        EIO, [](MemoryFileSystem& files) { files.putFolder(folder); },
        [&](MemoryFileSystem& files) { static_cast<void>(deliverTo(world, files)); },
        [&](MemoryFileSystem& files, const std::exception_ptr& thrown) {
            const bool couldNotRemember =
                !thrown && !DeliveredTransfers(world.systemOn(files).storage()).find(phone, TransferId("ID-1"));
            if (couldNotRemember) {
                return; // the data folder has failed: that costs no file, but a second one may come
            }
            const auto [received, wasReported] = deliverTo(world, files);
            EXPECT_THAT(copiesIn(files), ElementsAre(file.native()));
        });
}

TEST(DeliveredTransfersWithoutData, AreAViolationWhenDataComesAllTheSame) {
    fakes::World world;
    world.files.putFolder(folder);
    static_cast<void>(deliverTo(world, world.files));
    Downloads downloads(world.system.storage(), world.queues, folder);
    IncomingFile again = world.run(downloads.begin(phone, offer, world.clock.now()));
    EXPECT_EQ(*again.resumeMessage().as<TransportMessage::Resume>(),
              (TransportMessage::Resume{"ID-1", ByteOffset(10)}));
    again.append({});
    try {
        again.append(asBytes("x"));
        ADD_FAILURE() << "no error";
    } catch (const ReceiveError& error) {
        EXPECT_EQ(error.which(), ReceiveError::Case::protocolViolation);
        EXPECT_THAT(error.description(), HasSubstr("data of a file that was delivered already"));
    }
    EXPECT_THAT(copiesIn(world.files), ElementsAre(file.native()));
}

TEST(DeliveredTransfersWithoutData, AreAnotherFileIfAnotherSizeIsOffered) {
    fakes::World world;
    world.files.putFolder(folder);
    static_cast<void>(deliverTo(world, world.files));
    Downloads downloads(world.system.storage(), world.queues, folder);
    TransportMessage::FileOffer larger = offer;
    larger.size = 11;
    const IncomingFile again = world.run(downloads.begin(phone, larger, world.clock.now()));
    EXPECT_EQ(again.bytesWritten(), 0);
    EXPECT_EQ(again.delivered(), nullptr);
}

} // namespace
} // namespace orlinth
