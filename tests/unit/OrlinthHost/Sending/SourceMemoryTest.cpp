#include "OrlinthHost/Sending/SourceMemory.h"

#include "fakes/CrashTrials.h"
#include "fakes/World.h"
#include "platform/SystemError.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

namespace orlinth::host {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const platform::Path folder = "/home/ann/.local/share/Orlinth";
const platform::Path memoryFile = folder / SourceMemory::fileName;

class SourceMemoryTest : public testing::Test {
protected:
    SourceMemoryTest() {
        world.files.put("/home/ann/a.txt", "content of a");
        world.files.put("/home/ann/b.txt", "content of b");
    }

    /// The files as they are now, compared with what is remembered.
    [[nodiscard]] std::vector<SourceMemory::Source> compared(const std::vector<platform::Path>& paths) const {
        std::vector<SourceMemory::Source> sources;
        for (const platform::Path& path : paths) {
            sources.push_back(memory.examine(path).value());
        }
        memory.compare(sources);
        return sources;
    }
    [[nodiscard]] bool isFresh(const platform::Path& path) const { return compared({path}).front().isFresh; }

    fakes::World world;
    InFlightJournal journal{world.files, folder / InFlightJournal::defaultFileName};
    SourceMemory memory{world.files, world.mimeTypes, journal};
};

TEST_F(SourceMemoryTest, KnowsAFileThatWasRemembered) {
    EXPECT_TRUE(isFresh("/home/ann/a.txt"));
    memory.remember(compared({"/home/ann/a.txt"}));
    EXPECT_FALSE(isFresh("/home/ann/a.txt"));
    EXPECT_TRUE(isFresh("/home/ann/b.txt"));
    EXPECT_FALSE(SourceMemory(world.files, world.mimeTypes, journal).examine("/home/ann/a.txt")->isFresh)
        << "nobody has compared";
}

TEST_F(SourceMemoryTest, SeesAChangeBehindWhatTheJournalKnows) {
    constexpr std::size_t known = 64 << 10;
    world.files.put("/home/ann/big.bin", std::string(known, 'a') + "one end");
    std::vector<SourceMemory::Source> before = compared({"/home/ann/big.bin"});
    memory.remember(before);
    {
        const auto file = world.files.open("/home/ann/big.bin", platform::OpenMode::write); // the same inode and size
        file->seek(ByteOffset(static_cast<std::int64_t>(known)));
        file->write(asBytes("two"));
    }
    const std::vector<SourceMemory::Source> after = compared({"/home/ann/big.bin"});
    EXPECT_EQ(after.front().key.text(), before.front().key.text()) << "the journal would go on with the same id";
    EXPECT_TRUE(after.front().isFresh);
}

TEST_F(SourceMemoryTest, SeesAnotherFileOfTheSameContentInItsPlace) {
    memory.remember(compared({"/home/ann/a.txt"}));
    world.files.put("/home/ann/other.txt", "content of a");
    world.files.swapIn("/home/ann/other.txt", "/home/ann/a.txt");
    EXPECT_TRUE(isFresh("/home/ann/a.txt"));
}

TEST_F(SourceMemoryTest, TellsRightBeforeAnAttemptWhetherAFileIsStillTheOneThatWasExamined) {
    const SourceMemory::Source source = memory.examine("/home/ann/a.txt").value();
    EXPECT_TRUE(memory.isUnchanged("/home/ann/a.txt", source));
    world.files.put("/home/ann/a.txt", "CONTENT of a");
    EXPECT_FALSE(memory.isUnchanged("/home/ann/a.txt", source));
    world.files.remove("/home/ann/a.txt");
    EXPECT_FALSE(memory.isUnchanged("/home/ann/a.txt", source));
}

TEST_F(SourceMemoryTest, LeavesAFileThatCannotBeSentToTheAttempt) {
    world.files.putFolder("/home/ann/folder");
    world.files.putSpecial("/home/ann/pipe");
    for (const char* path : {"/home/ann/missing", "/home/ann/folder", "/home/ann/pipe"}) {
        EXPECT_FALSE(memory.examine(path)) << path;
    }
}

TEST_F(SourceMemoryTest, ForgetsManyFilesInOneWrite) {
    memory.remember(compared({"/home/ann/a.txt", "/home/ann/b.txt"}));
    const std::size_t before = world.files.count(fakes::Operation::rename);
    for (const SourceMemory::Source& source : compared({"/home/ann/a.txt", "/home/ann/b.txt"})) {
        memory.forget(source.key);
    }
    EXPECT_FALSE(isFresh("/home/ann/a.txt")) << "nothing is written yet";
    memory.flush();
    memory.flush();
    EXPECT_EQ(world.files.count(fakes::Operation::rename), before + 1);
    EXPECT_TRUE(isFresh("/home/ann/a.txt"));
    EXPECT_TRUE(isFresh("/home/ann/b.txt"));
}

TEST_F(SourceMemoryTest, ForgetsWithTheNextThatIsRemembered) {
    memory.remember(compared({"/home/ann/a.txt"}));
    memory.forget(memory.examine("/home/ann/a.txt")->key);
    memory.remember(compared({"/home/ann/b.txt"}));
    EXPECT_TRUE(isFresh("/home/ann/a.txt"));
    EXPECT_FALSE(isFresh("/home/ann/b.txt"));
}

TEST_F(SourceMemoryTest, WritesNothingThatIsKnownAlready) {
    memory.remember(compared({"/home/ann/a.txt"}));
    const std::size_t before = world.files.count(fakes::Operation::rename);
    memory.remember(compared({"/home/ann/a.txt"}));
    memory.flush();
    EXPECT_EQ(world.files.count(fakes::Operation::rename), before);
}

TEST_F(SourceMemoryTest, ThatIsRuinedCountsAsEmptyAndIsWrittenAnew) {
    for (const char* content : {"", "{", "[]", "null", R"({"sources":[]})", R"({"sources":{"x":1}})"}) {
        world.files.put(memoryFile, content);
        EXPECT_TRUE(isFresh("/home/ann/a.txt")) << content;
        memory.remember(compared({"/home/ann/a.txt"}));
        EXPECT_FALSE(isFresh("/home/ann/a.txt")) << content;
    }
}

TEST_F(SourceMemoryTest, SaysThatTheDiskIsFullAndKeepsWhatItHad) {
    memory.remember(compared({"/home/ann/a.txt"}));
    world.files.addFault({.operation = fakes::Operation::write, .errorNumber = ENOSPC});
    EXPECT_THROW(memory.remember(compared({"/home/ann/b.txt"})), platform::SystemError);
    world.files.clearFaults();
    EXPECT_FALSE(isFresh("/home/ann/a.txt"));
    EXPECT_FALSE(world.files.isLocked(memoryFile));
}

TEST_F(SourceMemoryTest, KeepsWhatAnotherProgramHasRememberedMeanwhile) {
    SourceMemory other(world.files, world.mimeTypes, journal);
    memory.remember(compared({"/home/ann/a.txt"}));
    other.remember(compared({"/home/ann/b.txt"}));
    EXPECT_FALSE(isFresh("/home/ann/a.txt"));
    EXPECT_FALSE(isFresh("/home/ann/b.txt"));
}

TEST_F(SourceMemoryTest, IsForTheOwnerAlone) {
    memory.remember(compared({"/home/ann/a.txt"}));
    EXPECT_EQ(world.files.status(memoryFile)->permissions & 0777U, 0600U);
    EXPECT_EQ(world.files.status(folder)->permissions & 0777U, 0700U);
}

} // namespace
} // namespace orlinth::host
