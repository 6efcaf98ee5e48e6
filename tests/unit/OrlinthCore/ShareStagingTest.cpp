#include "OrlinthCore/Share/ShareStaging.h"

#include "fakes/CrashTrials.h"
#include "fakes/FakeBusSignals.h"
#include "fakes/MemoryFileSystem.h"
#include "fakes/RecordingLog.h"
#include "fakes/TemporaryFolder.h"
#include "fakes/VirtualClock.h"
#include "platform/SystemError.h"
#include "platform/WholeFile.h"
#include "platform/linux/LinuxFileSystem.h"

#include <asio/io_context.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <set>
#include <sys/stat.h>
#include <thread>

namespace orlinth {
namespace {

using fakes::MemoryFileSystem;
using fakes::Operation;
using platform::LogLevel;
using platform::Path;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;
using Manifest = ShareOutbox::Manifest;

const platform::UserDirectories directories{
    .data = "/home/ann/.local/share", .config = "/home/ann/.config", .downloads = "/home/ann/Downloads"};
const Path container = "/home/ann/.local/share/group.com.tarvinex.orlinth";
const Path root = container / "Outbox";

/// What a batch is staged with, around some files.
struct Desk {
    explicit Desk(platform::FileSystem& theFiles) : files(theFiles) {}

    [[nodiscard]] std::unique_ptr<ShareStaging> begin(const platform::UserDirectories& where = directories) {
        return std::make_unique<ShareStaging>(
            ShareStaging::System{.files = files, .clock = clock, .log = log, .busSignals = busSignals},
            ShareOutbox(files, where));
    }

    platform::FileSystem& files;
    asio::io_context context;
    fakes::VirtualClock clock{context};
    fakes::RecordingLog log;
    fakes::FakeBusSignals busSignals;
};

ShareError failureOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const ShareError& error) {
        return error;
    }
    throw std::logic_error("nothing failed");
}

Manifest manifestIn(platform::FileSystem& files, const Path& folder) {
    return Manifest::fromJson(parseJson(platform::readWholeFile(files, folder / "manifest.json")));
}

class ShareStagingTest : public testing::Test {
protected:
    /// The names that files of these names, each in a folder of its own, get in a batch.
    std::vector<std::string> namesFor(const std::vector<std::string>& names) {
        const auto staging = desk.begin();
        for (std::size_t number = 0; number < names.size(); ++number) {
            const Path path = Path("/from") / std::to_string(number) / names[number];
            files.put(path, std::to_string(number));
            EXPECT_TRUE(staging->add(path));
        }
        const Manifest manifest = staging->finish(std::nullopt);
        for (std::size_t number = 0; number < manifest.files.size(); ++number) {
            EXPECT_EQ(files.content(staging->folder() / manifest.files[number]), std::to_string(number));
        }
        return manifest.files;
    }

    void expectNothingIsLeft() {
        EXPECT_TRUE(!files.exists(root) || files.list(root).empty());
        EXPECT_THAT(desk.busSignals.posted, IsEmpty());
    }

    MemoryFileSystem files;
    Desk desk{files};
};

TEST_F(ShareStagingTest, CopiesTheFilesWritesTheManifestAndRings) {
    files.put("/home/ann/holiday.jpg", "picture");
    files.put("/home/ann/notes", "text");
    const auto staging = desk.begin();
    EXPECT_EQ(staging->folder(), root / staging->id());
    EXPECT_TRUE(staging->add("/home/ann/holiday.jpg"));
    EXPECT_TRUE(staging->add("/home/ann/notes"));
    EXPECT_THAT(desk.busSignals.posted, IsEmpty());
    EXPECT_FALSE(files.exists(staging->folder() / "manifest.json"));
    const Manifest manifest = staging->finish(std::vector{PeerKey("a/b+c="), PeerKey("d")});
    const Manifest expected{staging->id(),
                            fromEpochMilliseconds(1'767'225'600'000),
                            {"holiday.jpg", "notes"},
                            std::vector{PeerKey("a/b+c="), PeerKey("d")}};
    EXPECT_EQ(manifest, expected);
    EXPECT_EQ(manifestIn(files, staging->folder()), expected);
    EXPECT_EQ(files.content(staging->folder() / "holiday.jpg"), "picture");
    EXPECT_EQ(files.content(staging->folder() / "notes"), "text");
    EXPECT_THAT(files.list(staging->folder()), UnorderedElementsAre("holiday.jpg", "notes", "manifest.json"));
    EXPECT_EQ(files.content("/home/ann/notes"), "text");
    EXPECT_THAT(desk.busSignals.posted, ElementsAre("com.tarvinex.orlinth.share-pending"));
    EXPECT_THAT(desk.log.lines(),
                ElementsAre(fakes::RecordingLog::Line{LogLevel::info, "com.tarvinex.orlinth.share", "share",
                                                      "staged 2 file(s) in batch " + staging->id()}));
}

TEST_F(ShareStagingTest, WritesTheManifestBehindAllTheCopiesAndInOneStep) {
    files.put("/a", "1");
    files.put("/b", "2");
    const auto staging = desk.begin();
    staging->add("/a");
    staging->add("/b");
    const Path manifest = staging->folder() / "manifest.json";
    bool isComplete = false;
    files.beforeEach([&](Operation operation, const Path& path) {
        if (files.exists(manifest)) {
            isComplete = true;
            EXPECT_EQ(operation, Operation::flushDirectory) << path;
            EXPECT_THAT(manifestIn(files, staging->folder()).files, ElementsAre("a", "b"));
        }
    });
    static_cast<void>(staging->finish(std::nullopt));
    EXPECT_TRUE(isComplete);
    files.beforeEach({});
}

TEST_F(ShareStagingTest, WritesNoTargetsWhereThereWasNoChoice) {
    files.put("/a", "1");
    const auto staging = desk.begin();
    staging->add("/a");
    static_cast<void>(staging->finish(std::nullopt));
    const std::string text = files.content(staging->folder() / "manifest.json").value();
    EXPECT_EQ(text.find("targetPubkeys"), std::string::npos) << text;
}

TEST_F(ShareStagingTest, MakesEverythingForTheUserAlone) {
    files.put("/a", "1", 0644);
    const auto staging = desk.begin();
    staging->add("/a");
    static_cast<void>(staging->finish(std::nullopt));
    for (const Path& folder : {container, root, staging->folder()}) {
        EXPECT_EQ(files.status(folder).value().permissions, 0700U) << folder;
    }
    for (const char* name : {"a", "manifest.json"}) {
        EXPECT_EQ(files.status(staging->folder() / name).value().permissions, 0600U) << name;
    }
}

TEST_F(ShareStagingTest, NamesABatchByAFreshUuid) {
    const auto first = desk.begin();
    const auto second = desk.begin();
    EXPECT_THAT(first->id(),
                testing::MatchesRegex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}"));
    EXPECT_NE(first->id(), second->id()) << "of the same millisecond";
    EXPECT_THAT(files.list(root), UnorderedElementsAre(first->id(), second->id()));
}

TEST_F(ShareStagingTest, NumbersFilesOfTheSameName) {
    EXPECT_THAT(namesFor({"a.txt", "a.txt", "a.txt"}), ElementsAre("a.txt", "a 2.txt", "a 3.txt"));
    EXPECT_THAT(namesFor({"README", "README"}), ElementsAre("README", "README 2"));
    EXPECT_THAT(namesFor({"a.txt", "a 2.txt", "a.txt"}), ElementsAre("a.txt", "a 2.txt", "a 3.txt"));
    EXPECT_THAT(namesFor({"a.tar.gz", "a.tar.gz"}), ElementsAre("a.tar.gz", "a.tar 2.gz"));
    EXPECT_THAT(namesFor({".bashrc", ".bashrc"}), ElementsAre(".bashrc", ".bashrc 2"));
    EXPECT_THAT(namesFor({".a.txt", ".a.txt"}), ElementsAre(".a.txt", ".a 2.txt"));
    EXPECT_THAT(namesFor({"a.", "a."}), ElementsAre("a.", "a. 2"));
    EXPECT_THAT(namesFor({"a b.partial", "a b.partial"}), ElementsAre("a b.partial", "a b 2.partial"));
    EXPECT_THAT(namesFor({"Küche.jpg", "Küche.jpg"}), ElementsAre("Küche.jpg", "Küche 2.jpg"));
    EXPECT_THAT(namesFor({"A", "a"}), ElementsAre("A", "a"));
}

TEST_F(ShareStagingTest, TakesTheManifestsNameForTaken) {
    EXPECT_THAT(namesFor({"manifest.json"}), ElementsAre("manifest 2.json"));
    EXPECT_THAT(namesFor({"manifest.json", "manifest.json", "manifest 2.json"}),
                ElementsAre("manifest 2.json", "manifest 3.json", "manifest 2 2.json"));
}

TEST_F(ShareStagingTest, FindsTheFirstFreeNameInAFolder) {
    files.putFolder("/f");
    const auto find = [this](const std::string& name) { return ShareStaging::uniqueDestination(files, "/f", name); };
    EXPECT_EQ(find("a.txt"), "/f/a.txt");
    files.put("/f/a.txt", "");
    EXPECT_EQ(find("a.txt"), "/f/a 2.txt");
    files.putFolder("/f/a 2.txt");
    files.put("/f/a 4.txt", "");
    EXPECT_EQ(find("a.txt"), "/f/a 3.txt");
    files.put("/f/b", "");
    EXPECT_EQ(find("b"), "/f/b 2");
    EXPECT_EQ(find("manifest.json"), "/f/manifest 2.json");
    EXPECT_FALSE(files.exists("/f/b 2")) << "it only looks";
}

TEST_F(ShareStagingTest, TakesANameThatComesInBetweenForTaken) {
    files.put("/from/a.txt", "mine");
    const auto staging = desk.begin();
    files.beforeEach([&](Operation operation, const Path& path) {
        if (operation == Operation::open && path == staging->folder() / "a.txt" && !files.exists(path)) {
            files.put(path, "another's"); // between the look and the copy
        }
    });
    EXPECT_TRUE(staging->add("/from/a.txt"));
    files.beforeEach({});
    EXPECT_EQ(files.content(staging->folder() / "a.txt"), "another's");
    EXPECT_THAT(staging->finish(std::nullopt).files, ElementsAre("a 2.txt"));
}

TEST_F(ShareStagingTest, DoesNotWriteThroughALinkThatLeadsNowhere) {
    files.put("/from/a.txt", "mine");
    const auto staging = desk.begin();
    files.putLink(staging->folder() / "a.txt", "/elsewhere");
    EXPECT_TRUE(staging->add("/from/a.txt"));
    EXPECT_FALSE(files.exists("/elsewhere"));
    EXPECT_THAT(staging->finish(std::nullopt).files, ElementsAre("a 2.txt"));
}

TEST_F(ShareStagingTest, StoresANameThatIsNotUtf8UnderOneThatIs) {
    files.put("/from/caf\xE9.txt", "1");
    files.put("/other/caf\xE8.txt", "2");
    const auto staging = desk.begin();
    EXPECT_TRUE(staging->add("/from/caf\xE9.txt"));
    EXPECT_TRUE(staging->add("/other/caf\xE8.txt"));
    const Manifest manifest = staging->finish(std::nullopt);
    EXPECT_THAT(manifest.files, ElementsAre("caf\xEF\xBF\xBD.txt", "caf\xEF\xBF\xBD 2.txt"));
    EXPECT_EQ(manifestIn(files, staging->folder()), manifest) << "what is read is a name in the folder";
    EXPECT_EQ(files.content(staging->folder() / manifest.files.back()), "2");
}

TEST_F(ShareStagingTest, ShortensNamesThatAFileSystemDoesNotTake) {
    const std::string longest = std::string(251, 'n') + ".jpg";
    EXPECT_THAT(namesFor({longest, longest, longest}),
                ElementsAre(longest, std::string(249, 'n') + " 2.jpg", std::string(249, 'n') + " 3.jpg"));
    std::string umlauts; // of two bytes each
    for (int number = 0; number < 127; ++number) {
        umlauts += "ü";
    }
    // at the end of a character: 253 bytes would end in the middle of one
    EXPECT_THAT(namesFor({umlauts, umlauts}), ElementsAre(umlauts, umlauts.substr(0, 252) + " 2"));
    const std::string ending = "a." + std::string(250, 'x'); // no room for a name before it
    EXPECT_THAT(namesFor({ending, ending}), ElementsAre(ending, ending + " 2"));
    EXPECT_THAT(namesFor({"." + std::string(254, 'x'), "." + std::string(254, 'x')}),
                ElementsAre("." + std::string(254, 'x'), "." + std::string(252, 'x') + " 2"));
}

TEST_F(ShareStagingTest, ShortensANameThatGrowsByBecomingUtf8) {
    const std::string name = std::string(200, '\xE9') + ".jpg"; // each of them takes three bytes then
    const std::vector<std::string> names = namesFor({name, name});
    ASSERT_THAT(names, SizeIs(2));
    EXPECT_EQ(names[0].size(), 83U * 3 + 4);
    EXPECT_TRUE(names[0].ends_with("\xEF\xBF\xBD.jpg")) << names[0];
    EXPECT_EQ(names[1].size(), 83U * 3 + 6);
    EXPECT_TRUE(names[1].ends_with("\xEF\xBF\xBD 2.jpg")) << names[1];
}

TEST_F(ShareStagingTest, FollowsALinkToAFileUnderTheLinksName) {
    files.put("/from/target.txt", "content");
    files.putLink("/from/link.txt", "target.txt");
    const auto staging = desk.begin();
    EXPECT_TRUE(staging->add("/from/link.txt"));
    EXPECT_THAT(staging->finish(std::nullopt).files, ElementsAre("link.txt"));
    EXPECT_EQ(files.content(staging->folder() / "link.txt"), "content");
}

TEST_F(ShareStagingTest, SkipsAndLogsWhatCannotBeCopiedAndGoesOn) {
    files.putFolder("/from/folder");
    files.putSpecial("/from/pipe");
    files.putLink("/from/dangling", "nowhere");
    files.put("/from/secret", "x", 0000);
    files.put("/from/good", "content");
    const auto staging = desk.begin();
    for (const char* name : {"folder", "folder/", "pipe", "dangling", "secret", "missing", ".", "..", ""}) {
        EXPECT_FALSE(staging->add(Path("/from") / name)) << name;
    }
    EXPECT_FALSE(staging->add(""));
    EXPECT_FALSE(staging->add("/"));
    EXPECT_TRUE(staging->add("/from/good"));
    const std::vector<fakes::RecordingLog::Line> lines = desk.log.lines();
    ASSERT_THAT(lines, SizeIs(11));
    EXPECT_EQ(lines.front(), (fakes::RecordingLog::Line{LogLevel::error, "com.tarvinex.orlinth.share", "share",
                                                        "copy failed: Is a directory"}));
    for (const fakes::RecordingLog::Line& line : lines) {
        EXPECT_TRUE(line.message.starts_with("copy failed: ")) << line.message;
    }
    EXPECT_THAT(staging->finish(std::nullopt).files, ElementsAre("good"));
    EXPECT_THAT(files.list(staging->folder()), SizeIs(2));
}

TEST_F(ShareStagingTest, LeavesOutAFileThatDoesNotGetToTheDisk) {
    files.put("/a", "1");
    files.put("/b", "2");
    const auto staging = desk.begin();
    files.addFault({.operation = Operation::flush, .errorNumber = EIO, .times = 1});
    EXPECT_FALSE(staging->add("/a"));
    EXPECT_TRUE(staging->add("/b"));
    EXPECT_THAT(staging->finish(std::nullopt).files, ElementsAre("b"));
    EXPECT_THAT(files.list(staging->folder()), UnorderedElementsAre("b", "manifest.json"));
}

TEST_F(ShareStagingTest, FailsWhereNothingCouldBeCopiedAndLeavesNothing) {
    for (const bool hasTried : {false, true}) {
        const auto staging = desk.begin();
        if (hasTried) {
            staging->add("/missing");
        }
        const ShareError error = failureOf([&] { static_cast<void>(staging->finish(std::nullopt)); });
        EXPECT_EQ(error.which(), ShareError::Case::nothingRead);
        EXPECT_EQ(error.description(), "Could not read the shared file(s)");
        expectNothingIsLeft();
    }
}

TEST_F(ShareStagingTest, FailsWhereThereIsNoContainer) {
    files.put(container, "a file is in its place");
    const ShareError error = failureOf([&] { static_cast<void>(desk.begin()); });
    EXPECT_EQ(error.which(), ShareError::Case::containerUnavailable);
    EXPECT_EQ(error.description(), "App Group container unavailable — check entitlement");
    EXPECT_THAT(files.allFiles(), ElementsAre(container.native()));
}

TEST_F(ShareStagingTest, FailsWhereTheBatchsFolderCannotBeMade) {
    files.put(root, "a file is in its place");
    const ShareError error = failureOf([&] { static_cast<void>(desk.begin()); });
    EXPECT_EQ(error.which(), ShareError::Case::batchNotCreated);
    EXPECT_EQ(error.description(), "Could not create outbox batch: Not a directory");
}

TEST_F(ShareStagingTest, FailsWhereTheBatchsFolderCannotBeHeldAndLeavesNothing) {
    for (const Operation operation : {Operation::open, Operation::lock}) {
        files.addFault({.operation = operation, .errorNumber = EMFILE});
        const ShareError error = failureOf([&] { static_cast<void>(desk.begin()); });
        EXPECT_EQ(error.description(), "Could not create outbox batch: Too many open files");
        files.clearFaults();
        expectNothingIsLeft();
    }
}

TEST_F(ShareStagingTest, SaysWhatThereIsToSayOfTextAlone) {
    const ShareError error = ShareError::nothingShareable();
    EXPECT_EQ(error.which(), ShareError::Case::nothingShareable);
    EXPECT_EQ(error.description(), "Nothing shareable — Orlinth sends files only");
}

TEST_F(ShareStagingTest, FailsWhereTheManifestCannotBeWrittenAndLeavesNothing) {
    for (const Operation operation :
         {Operation::create, Operation::write, Operation::flush, Operation::rename, Operation::flushDirectory}) {
        files.put("/a", "1");
        const auto staging = desk.begin();
        staging->add("/a");
        files.addFault({.operation = operation, .errorNumber = EIO, .times = 1});
        const ShareError error = failureOf([&] { static_cast<void>(staging->finish(std::nullopt)); });
        EXPECT_EQ(error.which(), ShareError::Case::manifestNotWritten);
        EXPECT_EQ(error.description(), "Could not write manifest: Input/output error");
        files.clearFaults();
        expectNothingIsLeft();
    }
    EXPECT_THAT(desk.log.lines(), IsEmpty()) << "who shows the failure logs it";
}

TEST_F(ShareStagingTest, TakesNothingBackOnceTheManifestIsThere) {
    files.put("/a", "1");
    const auto staging = desk.begin();
    staging->add("/a");
    files.addFault({.operation = Operation::flushDirectory, .errorNumber = EIO, .skip = 1, .times = 1});
    EXPECT_THAT(staging->finish(std::nullopt).files, ElementsAre("a"));
    EXPECT_THAT(files.list(staging->folder()), UnorderedElementsAre("a", "manifest.json"));
    EXPECT_THAT(desk.busSignals.posted, SizeIs(1));
    ASSERT_THAT(desk.log.lines(), SizeIs(2));
    EXPECT_EQ(desk.log.lines().front().message,
              "cannot flush the folder of batch " + staging->id() + ": Input/output error");
}

TEST_F(ShareStagingTest, HasSharedWhatTheHostHasSentAndRemovedInTheSameInstant) {
    files.put("/a", "1");
    const auto staging = desk.begin();
    staging->add("/a");
    const Path manifest = staging->folder() / "manifest.json";
    files.beforeEach([&](Operation operation, const Path&) {
        if (operation == Operation::flushDirectory && files.exists(manifest)) {
            files.remove(staging->folder() / "a");
            files.remove(manifest);
            files.removeDirectory(staging->folder());
        }
    });
    EXPECT_THAT(staging->finish(std::nullopt).files, ElementsAre("a"));
    files.beforeEach({});
    EXPECT_THAT(desk.log.lines(), SizeIs(1)) << "that it was staged, and no failure";
}

TEST_F(ShareStagingTest, TakesTheManifestAwayBeforeTheFilesWhereItHasFailed) {
    files.put("/a", "1");
    const auto staging = desk.begin();
    staging->add("/a");
    files.addFault({.operation = Operation::rename, .errorNumber = EIO, .times = 1});
    files.beforeEach([&](Operation operation, const Path& path) {
        if (operation == Operation::rename) {
            files.put(path, "{}"); // a failure of which not everything is true, as of a file system far away
        }
        if (operation == Operation::remove && path.parent_path() == staging->folder() && path.extension() != ".tmp" &&
            path.filename() != "manifest.json") {
            EXPECT_FALSE(files.exists(staging->folder() / "manifest.json")) << "a batch without its files";
        }
    });
    EXPECT_THROW(static_cast<void>(staging->finish(std::nullopt)), ShareError);
    files.beforeEach({});
    expectNothingIsLeft();
}

TEST_F(ShareStagingTest, LeavesNothingWhenItIsGivenUp) {
    files.put("/a", "1");
    {
        const auto staging = desk.begin();
        staging->add("/a");
    }
    expectNothingIsLeft();
    EXPECT_EQ(files.content("/a"), "1");
}

TEST_F(ShareStagingTest, KeepsABatchThatIsFinished) {
    files.put("/a", "1");
    Path folder;
    {
        const auto staging = desk.begin();
        staging->add("/a");
        static_cast<void>(staging->finish(std::nullopt));
        folder = staging->folder();
    }
    EXPECT_THAT(files.list(folder), UnorderedElementsAre("a", "manifest.json"));
}

TEST_F(ShareStagingTest, HoldsItsFolderUntilItIsFinished) {
    files.put("/a", "1");
    auto staging = desk.begin();
    EXPECT_TRUE(files.isLocked(staging->folder()));
    staging->add("/a");
    EXPECT_TRUE(files.isLocked(staging->folder()));
    files.beforeEach([&](Operation, const Path&) { EXPECT_TRUE(files.isLocked(staging->folder())); });
    static_cast<void>(staging->finish(std::nullopt));
    files.beforeEach({});
    EXPECT_FALSE(files.isLocked(staging->folder())) << "the host may take it at once";
}

TEST_F(ShareStagingTest, BeginsAgainWhereItsFolderIsClearedAwayBeforeItIsHeld) {
    int cleared = 0;
    files.beforeEach([&](Operation operation, const Path& path) {
        const bool isBatch = path.parent_path() == root;
        if (isBatch && cleared < 2 && operation == (cleared == 0 ? Operation::open : Operation::lock)) {
            ++cleared;
            files.removeDirectory(path);
        }
    });
    files.put("/a", "1");
    const auto staging = desk.begin();
    files.beforeEach({});
    EXPECT_EQ(cleared, 2);
    EXPECT_TRUE(files.isLocked(staging->folder()));
    EXPECT_TRUE(staging->add("/a"));
    EXPECT_THAT(staging->finish(std::nullopt).files, ElementsAre("a"));
}

/// A batch of two files.
void stageTwo(MemoryFileSystem& files) {
    Desk desk(files);
    const auto staging = desk.begin();
    staging->add("/home/ann/a.txt");
    staging->add("/home/ann/b.txt");
    static_cast<void>(staging->finish(std::vector{PeerKey("key")}));
}

void putTwo(MemoryFileSystem& files) {
    files.put("/home/ann/a.txt", "content of a");
    files.put("/home/ann/b.txt", "content of b");
}

/// Every batch with a manifest must have all its files, whole. Returns how many there are.
std::size_t completeBatches(MemoryFileSystem& files) {
    std::size_t complete = 0;
    for (const std::string& id : files.exists(root) ? files.list(root) : std::vector<std::string>()) {
        if (!files.exists(root / id / "manifest.json")) {
            continue;
        }
        ++complete;
        const Manifest manifest = manifestIn(files, root / id);
        EXPECT_EQ(manifest.id, id);
        EXPECT_FALSE(manifest.files.empty());
        for (const std::string& name : manifest.files) {
            EXPECT_EQ(files.content(root / id / name), "content of " + name.substr(0, 1)) << name;
        }
    }
    return complete;
}

TEST(ShareStagingCrash, LeavesACompleteBatchOrOneWithoutAManifest) {
    fakes::forEveryCrash(putTwo, stageTwo, [](const fakes::Aftermath& after) {
        const std::size_t complete = completeBatches(after.files);
        EXPECT_LE(complete, 1U);
        EXPECT_TRUE(!after.completed || complete == 1) << "what was rung for is there";
        EXPECT_EQ(after.files.content("/home/ann/a.txt"), "content of a");
    });
}

TEST(ShareStagingFailure, LeavesACompleteBatchOrNone) {
    for (const int errorNumber : {ENOSPC, EIO, EACCES}) {
        fakes::forEveryFailure(errorNumber, putTwo, stageTwo,
                               [](MemoryFileSystem& files, const std::exception_ptr& thrown) {
                                   EXPECT_EQ(completeBatches(files), thrown ? 0U : 1U);
                                   const bool isClear = !files.exists(root) || files.list(root).empty();
                                   EXPECT_TRUE(!thrown || isClear) << describe(thrown);
                               });
    }
}

TEST(ShareStagingFailure, LeavesNothingOnADiskThatIsFull) {
    MemoryFileSystem files;
    putTwo(files);
    for (const std::size_t capacity : {24U, 30U, 36U, 50U}) { // no file, a part, one, two but no manifest
        files.setCapacity(capacity);
        EXPECT_THROW(stageTwo(files), ShareError) << capacity;
        EXPECT_THAT(files.list(root), IsEmpty());
    }
}

/// The same on real files.
class ShareStagingOnDisk : public testing::Test {
protected:
    fakes::TemporaryFolder folder;
    platform::LinuxFileSystem files;
    Desk desk{files};
    platform::UserDirectories where{.data = folder / "data", .config = "", .downloads = ""};
};

TEST_F(ShareStagingOnDisk, StagesAndDiscards) {
    fakes::writeText(folder / "a.txt", "content");
    fakes::writeText(folder / "other/a.txt", "other");
    ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), 0600), 0);
    const auto staging = desk.begin(where);
    EXPECT_TRUE(staging->add(folder / "a.txt"));
    EXPECT_TRUE(staging->add(folder / "other/a.txt"));
    EXPECT_FALSE(staging->add(folder / "other"));
    EXPECT_FALSE(staging->add(folder / "pipe"));
    desk.begin(where)->add(folder / "a.txt"); // and given up
    const Manifest manifest = staging->finish(std::nullopt);
    EXPECT_THAT(manifest.files, ElementsAre("a.txt", "a 2.txt"));
    EXPECT_EQ(fakes::readText(staging->folder() / "a 2.txt"), "other");
    EXPECT_EQ(manifestIn(files, staging->folder()), manifest);
    EXPECT_THAT(files.list(staging->folder()), UnorderedElementsAre("a.txt", "a 2.txt", "manifest.json"));
    EXPECT_THAT(files.list(staging->folder().parent_path()), ElementsAre(staging->id()));
    EXPECT_TRUE(files.open(staging->folder(), platform::OpenMode::read)->tryLock());
}

TEST_F(ShareStagingOnDisk, IsHeldAgainstOtherProcessesUntilItIsFinished) {
    const auto staging = desk.begin(where);
    EXPECT_FALSE(files.open(staging->folder(), platform::OpenMode::read)->tryLock());
}

TEST_F(ShareStagingOnDisk, TakesFilesFromManyThreadsAtOnce) {
    constexpr int threadCount = 4;
    constexpr int filesEach = 25;
    for (int number = 0; number < threadCount * filesEach; ++number) {
        fakes::writeText(folder / std::to_string(number) / "same.txt", std::to_string(number));
    }
    const auto staging = desk.begin(where);
    std::atomic<int> copied = 0;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < threadCount; ++thread) {
        threads.emplace_back([&, thread] {
            for (int number = thread; number < threadCount * filesEach; number += threadCount) {
                copied += staging->add(folder / std::to_string(number) / "same.txt") ? 1 : 0;
                EXPECT_FALSE(staging->add(folder / "missing"));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(copied, threadCount * filesEach);
    const Manifest manifest = staging->finish(std::nullopt);
    EXPECT_THAT(manifest.files, SizeIs(threadCount * filesEach));
    std::set<std::string> contents;
    for (const std::string& name : manifest.files) {
        contents.insert(fakes::readText(staging->folder() / name));
    }
    EXPECT_THAT(contents, SizeIs(threadCount * filesEach)) << "each file once";
    EXPECT_TRUE(files.exists(staging->folder() / "same 100.txt")) << "numbered without gaps";
}

} // namespace
} // namespace orlinth
