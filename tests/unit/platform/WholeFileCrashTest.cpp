#include "fakes/CrashTrials.h"
#include "fakes/MemoryFileSystem.h"
#include "platform/SystemError.h"
#include "platform/WholeFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <thread>

namespace orlinth::platform {
namespace {

using fakes::Aftermath;
using fakes::CrashKind;
using fakes::MemoryFileSystem;
using fakes::Operation;
using testing::ElementsAre;
using testing::StartsWith;

const Path file = "/data/store.json";

void prepareOld(MemoryFileSystem& files) {
    files.put(file, "the old content");
}

void writeNew(MemoryFileSystem& files) {
    writeWholeFile(files, file, asBytes("the new content, which is longer"), 0600);
}

TEST(WholeFile, FlushesTheDataBeforeTheNameAndTheNameBeforeItReturns) {
    MemoryFileSystem files;
    prepareOld(files);
    writeNew(files);
    EXPECT_THAT(files.history(),
                ElementsAre(StartsWith("create /data/."), StartsWith("write /data/."), StartsWith("flush /data/."),
                            testing::EndsWith(" /data/store.json"), "flushDirectory /data"));
    EXPECT_EQ(files.status(file)->permissions, 0600U);
    EXPECT_THAT(files.list("/data"), ElementsAre("store.json"));
}

TEST(WholeFile, LeavesTheNameToTheCallerIfToldSo) {
    MemoryFileSystem files;
    prepareOld(files);
    writeWholeFile(files, file, asBytes("new"), 0600, Flush::content);
    EXPECT_THAT(files.history(), ElementsAre(StartsWith("create /data/."), StartsWith("write /data/."),
                                             StartsWith("flush /data/."), testing::EndsWith(" /data/store.json")));
}

TEST(WholeFile, ReadsWhatIsThereWhateverItsLength) {
    MemoryFileSystem files;
    for (const std::size_t length : {0U, 1U, 65535U, 65536U, 65537U, 200000U}) {
        files.put(file, std::string(length, 'x'));
        EXPECT_EQ(readWholeFile(files, file).size(), length);
    }
    EXPECT_THROW(static_cast<void>(readWholeFile(files, "/missing")), SystemError);
}

TEST(WholeFile, KeepsALinkAndReplacesItsTarget) {
    MemoryFileSystem files;
    files.put("/elsewhere/real.json", "old");
    files.putLink(file, "/elsewhere/real.json");
    writeWholeFile(files, file, asBytes("the new content"), 0600, Flush::now, Links::follow);
    EXPECT_EQ(files.resolveLinks(file), "/elsewhere/real.json");
    EXPECT_THAT(*files.content("/elsewhere/real.json"), StartsWith("the new content"));
    EXPECT_THAT(files.list("/data"), ElementsAre("store.json"));
}

TEST(WholeFile, IsOldOrNewAfterACrashAtAnyPoint) {
    fakes::forEveryCrash(prepareOld, writeNew, [](const Aftermath& after) {
        const std::optional<std::string> found = after.files.content(file);
        const bool isNew = found == "the new content, which is longer";
        EXPECT_TRUE(isNew || (!after.completed && found == "the old content")) << *found;
        writeWholeFile(after.files, file, asBytes("later"));
        EXPECT_EQ(after.files.content(file), "later");
    });
}

TEST(WholeFile, IsMissingOrWholeAfterACrashOfTheFirstWrite) {
    fakes::forEveryCrash([](MemoryFileSystem& files) { files.putFolder("/data"); }, writeNew,
                         [](const Aftermath& after) {
                             const std::optional<std::string> found = after.files.content(file);
                             const bool isNew = found == "the new content, which is longer";
                             EXPECT_TRUE(isNew || (!after.completed && !found)) << *found;
                         });
}

TEST(WholeFile, LeavesTheOldContentAndNoTemporaryFileOnAFailure) {
    for (const int errorNumber : {ENOSPC, EIO, EACCES}) {
        fakes::forEveryFailure(
            errorNumber, prepareOld, writeNew, [&](MemoryFileSystem& files, const std::exception_ptr& thrown) {
                EXPECT_EQ(thrown ? describe(thrown) : "no error", SystemError::fromErrno(errorNumber).description());
                const bool renamed = !files.history().empty() && files.history().back().starts_with("rename");
                EXPECT_EQ(files.content(file) == "the old content", !renamed);
                EXPECT_THAT(files.list("/data"), ElementsAre("store.json"));
            });
    }
}

TEST(WholeFile, LeavesTheOldContentOnAFullDisk) {
    MemoryFileSystem files;
    prepareOld(files);
    files.setCapacity(20);
    EXPECT_THROW(writeNew(files), SystemError);
    EXPECT_EQ(files.content(file), "the old content");
    EXPECT_THAT(files.list("/data"), ElementsAre("store.json"));
}

// The twin itself must be able to show the mistakes that the tests look for.

TEST(MemoryFileSystemTwin, ShowsARenameWithoutAFlushOfTheDataAsZeros) {
    MemoryFileSystem files;
    prepareOld(files);
    {
        const auto written = files.open("/data/new", OpenMode::createNew);
        written->write(asBytes("abc"));
    }
    files.rename("/data/new", file);
    EXPECT_EQ(files.afterCrash(CrashKind::processKill)->content(file), "abc");
    EXPECT_EQ(files.afterCrash(CrashKind::powerCut)->content(file), "the old content");
    EXPECT_EQ(files.afterCrash(CrashKind::powerCutNamesFirst)->content(file), std::string(3, '\0'));
}

TEST(MemoryFileSystemTwin, LosesANameWhoseFolderWasNotFlushed) {
    MemoryFileSystem files;
    files.putFolder("/data");
    const auto written = files.open(file, OpenMode::createNew);
    written->write(asBytes("abc"));
    written->flush();
    EXPECT_FALSE(files.afterCrash(CrashKind::powerCut)->exists(file));
    EXPECT_FALSE(files.afterCrash(CrashKind::powerCutDataFirst)->exists(file));
    files.flushDirectory("/data");
    EXPECT_EQ(files.afterCrash(CrashKind::powerCut)->content(file), "abc");
}

TEST(MemoryFileSystemTwin, ThrowsCrashFromThePlannedChangeOn) {
    MemoryFileSystem files;
    prepareOld(files);
    const auto opened = files.open(file, OpenMode::write);
    files.crashAfter(1, 2);
    opened->write(asBytes("THE"));
    EXPECT_THROW(opened->write(asBytes("____")), fakes::Crash);
    EXPECT_THROW(opened->flush(), fakes::Crash);
    EXPECT_THROW(static_cast<void>(files.status(file)), fakes::Crash);
    EXPECT_FALSE(files.exists(file));
    EXPECT_EQ(files.afterCrash(CrashKind::processKill)->content(file), "THE__ld content");
    EXPECT_EQ(files.afterCrash(CrashKind::powerCut)->content(file), "the old content");
}

TEST(MemoryFileSystemTwin, LocksBetweenFileObjectsUntilTheyGo) {
    MemoryFileSystem files;
    prepareOld(files);
    auto first = files.open(file, OpenMode::read);
    const auto second = files.open(file, OpenMode::write);
    EXPECT_TRUE(first->tryLock());
    EXPECT_TRUE(first->tryLock());
    EXPECT_FALSE(second->tryLock());
    EXPECT_TRUE(files.afterCrash(CrashKind::processKill)->open(file, OpenMode::read)->tryLock());
    first.reset();
    EXPECT_TRUE(second->tryLock());
}

TEST(MemoryFileSystemTwin, WritesWhatFitsOnAFullDiskAndReportsTheRest) {
    MemoryFileSystem files;
    files.putFolder("/data");
    files.setCapacity(4);
    const auto written = files.open(file, OpenMode::createNew);
    EXPECT_THROW(written->write(asBytes("abcdef")), SystemError);
    EXPECT_EQ(files.content(file), "abcd");
}

TEST(FileLock, LetsOneThreadInAtATime) {
    MemoryFileSystem files;
    prepareOld(files);
    std::atomic<int> inside = 0;
    std::atomic<bool> overlapped = false;
    {
        std::vector<std::jthread> threads;
        for (int thread = 0; thread < 4; ++thread) {
            threads.emplace_back([&] {
                for (int i = 0; i < 50; ++i) {
                    const FileLock held(files, file);
                    overlapped = overlapped || ++inside > 1;
                    std::this_thread::yield();
                    --inside;
                }
            });
        }
    }
    EXPECT_FALSE(overlapped);
}

TEST(FileLock, RefusesALinkInItsPlace) {
    MemoryFileSystem files;
    prepareOld(files);
    files.putLink(file.native() + ".lock", "/data/victim");
    EXPECT_THROW(FileLock(files, file), SystemError);
    EXPECT_FALSE(files.exists("/data/victim"));
}

} // namespace
} // namespace orlinth::platform
