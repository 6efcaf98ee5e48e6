#include "platform/WholeFile.h"

#include "fakes/TemporaryFolder.h"
#include "platform/SystemError.h"
#include "platform/linux/LinuxFileSystem.h"

#include <gmock/gmock.h>

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace orlinth::platform {
namespace {

using fakes::readText;
using fakes::writeText;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

/// The real files, with an eye on how new ones are made.
class WatchedFileSystem final : public FileSystem {
public:
    std::optional<std::uint32_t> permissionsOfNewFile; ///< right after it was made, still empty
    Path nameOfNewFile;
    std::vector<std::string> steps;

    std::optional<FileStatus> status(const Path& path) const override { return files_.status(path); }
    bool exists(const Path& path) const noexcept override { return files_.exists(path); }
    std::unique_ptr<File> open(const Path& path, OpenMode mode, Links links, std::uint32_t permissions) override {
        std::unique_ptr<File> file = files_.open(path, mode, links, permissions);
        if (mode == OpenMode::createNew) {
            EXPECT_EQ(file->status().size, 0);
            EXPECT_EQ(links, Links::refuse);
            permissionsOfNewFile = file->status().permissions;
            nameOfNewFile = path;
            steps.emplace_back("make");
        }
        return file;
    }
    std::unique_ptr<Folder> openFolder(const Path& path) override { return files_.openFolder(path); }
    void createDirectories(const Path& path, std::uint32_t permissions) override {
        files_.createDirectories(path, permissions);
    }
    void rename(const Path& from, const Path& to) override {
        files_.rename(from, to);
        steps.emplace_back("rename");
    }
    bool renameNoReplace(const Path& from, const Path& to) override { return files_.renameNoReplace(from, to); }
    void copyToNew(const Path& from, const Path& to, std::uint32_t permissions) override {
        files_.copyToNew(from, to, permissions);
    }
    void remove(const Path& path) override { files_.remove(path); }
    void removeDirectory(const Path& path) override { files_.removeDirectory(path); }
    Path resolveLinks(const Path& path) const override { return files_.resolveLinks(path); }
    void setPermissions(const Path& path, std::uint32_t permissions) override {
        files_.setPermissions(path, permissions);
    }
    void flushDirectory(const Path& path) override {
        files_.flushDirectory(path);
        steps.emplace_back("flush folder");
    }
    std::vector<std::string> list(const Path& path) const override { return files_.list(path); }

private:
    LinuxFileSystem files_;
};

std::vector<std::string> namesIn(const fakes::TemporaryFolder& folder) {
    return LinuxFileSystem().list(folder.path());
}

TEST(WholeFile, IsReadAndWrittenWhateverItsSize) {
    const fakes::TemporaryFolder folder;
    LinuxFileSystem files;
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{65536}, std::size_t{200'001}}) {
        Bytes content(size);
        for (std::size_t i = 0; i < size; ++i) {
            content[i] = static_cast<std::byte>(i * 7);
        }
        writeWholeFile(files, folder / "a", content);
        EXPECT_EQ(readWholeFile(files, folder / "a"), content);
    }
    EXPECT_THAT(namesIn(folder), ElementsAre("a"));
    EXPECT_THROW(static_cast<void>(readWholeFile(files, folder / "none")), SystemError);
    EXPECT_THROW(static_cast<void>(readWholeFile(files, folder.path())), SystemError);
}

TEST(WholeFile, IsMadeWithItsFinalPermissionsBesideItsPlaceThenMovedThenItsFolderFlushed) {
    const fakes::TemporaryFolder folder;
    WatchedFileSystem files;
    const mode_t before = ::umask(0);
    writeWholeFile(files, folder / "key", asBytes("secret"), 0600);
    ::umask(before);
    EXPECT_EQ(files.permissionsOfNewFile, 0600U);
    EXPECT_EQ(files.nameOfNewFile.parent_path(), folder.path());
    EXPECT_EQ(files.status(folder / "key").value().permissions, 0600U);
    EXPECT_THAT(files.steps, ElementsAre("make", "rename", "flush folder"));
}

TEST(WholeFile, TakesAFreshTemporaryNameEachTime) {
    const fakes::TemporaryFolder folder;
    WatchedFileSystem files;
    writeWholeFile(files, folder / "a", asBytes("1"));
    const Path first = files.nameOfNewFile;
    writeWholeFile(files, folder / "a", asBytes("2"));
    EXPECT_NE(files.nameOfNewFile, first);
}

TEST(TemporaryFiles, OfKilledWritersAreRemovedAndNothingElse) {
    const fakes::TemporaryFolder folder;
    LinuxFileSystem files;
    const std::string left = temporaryName().text();
    const std::string linked = temporaryName().text();
    const std::string twice = temporaryName().text();
    const std::string folderName = temporaryName().text();
    const std::vector<std::string> others = {".orlinth-0123456789abcdef.tm",  ".orlinth-0123456789abcde.tmp",
                                             ".orlinth-0123456789abcdeF.tmp", "orlinth-0123456789abcdef.tmp",
                                             ".0123456789abcdef.tmp",         ".orlinth-.tmp"};
    for (const std::string& name : others) {
        writeText(folder / name, "a person's");
    }
    writeText(folder / left, "half a side");
    std::filesystem::create_symlink(folder / others.front(), folder / linked);
    writeText(folder / twice, "kept under a second name");
    std::filesystem::create_hard_link(folder / twice, folder / "second");
    std::filesystem::create_directory(folder / folderName);
    const std::unique_ptr<Folder> opened = files.openFolder(folder.path());
    const EpochNanoseconds writtenAt = opened->status(FileName(left)).value().modifiedAt;

    const std::size_t count = namesIn(folder).size();
    removeTemporaryFiles(*opened, writtenAt - std::chrono::nanoseconds(1));
    EXPECT_EQ(namesIn(folder).size(), count) << "somebody may still write to it";

    removeTemporaryFiles(*opened, writtenAt + std::chrono::hours(1));
    std::vector<std::string> kept = others;
    kept.insert(kept.end(), {linked, twice, folderName, "second"});
    EXPECT_THAT(namesIn(folder), testing::UnorderedElementsAreArray(kept));
}

TEST(WholeFile, LeavesTheOldContentAndNoTemporaryFileWhenTheDiskIsFull) {
    const fakes::TemporaryFolder folder;
    LinuxFileSystem files;
    writeText(folder / "a", "old");
    void (*const handler)(int) = ::signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    ::getrlimit(RLIMIT_FSIZE, &before);
    const rlimit limit{100, before.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    EXPECT_THROW(writeWholeFile(files, folder / "a", Bytes(200)), SystemError);
    ::setrlimit(RLIMIT_FSIZE, &before);
    ::signal(SIGXFSZ, handler);
    EXPECT_EQ(readText(folder / "a"), "old");
    EXPECT_THAT(namesIn(folder), ElementsAre("a"));
}

TEST(WholeFile, LeavesNoTemporaryFileWhenItsPlaceIsAFolder) {
    const fakes::TemporaryFolder folder;
    LinuxFileSystem files;
    std::filesystem::create_directory(folder / "a");
    EXPECT_THROW(writeWholeFile(files, folder / "a", asBytes("x")), SystemError);
    EXPECT_THAT(namesIn(folder), ElementsAre("a"));
}

TEST(WholeFile, KeepsALinkAndReplacesItsTargetWhereThatIsAskedFor) {
    const fakes::TemporaryFolder folder;
    LinuxFileSystem files;
    writeText(folder / "elsewhere/target", "old");
    std::filesystem::create_symlink("elsewhere/target", folder / "link");
    std::filesystem::create_symlink("elsewhere/new", folder / "dangling");
    writeWholeFile(files, folder / "link", asBytes("new"), 0600, Flush::now, Links::follow);
    writeWholeFile(files, folder / "dangling", asBytes("first"), 0600, Flush::now, Links::follow);
    EXPECT_TRUE(std::filesystem::is_symlink(folder / "link"));
    EXPECT_TRUE(std::filesystem::is_symlink(folder / "dangling"));
    EXPECT_EQ(readText(folder / "elsewhere/target"), "new");
    EXPECT_EQ(readText(folder / "elsewhere/new"), "first");
    EXPECT_THAT(namesIn(folder), UnorderedElementsAre("link", "dangling", "elsewhere"));
}

TEST(WholeFile, ReplacesALinkItself) {
    const fakes::TemporaryFolder folder;
    LinuxFileSystem files;
    writeText(folder / "elsewhere/target", "precious");
    std::filesystem::create_symlink("elsewhere/target", folder / "link");
    std::filesystem::create_symlink("elsewhere/new", folder / "dangling");
    writeWholeFile(files, folder / "link", asBytes("new"));
    writeWholeFile(files, folder / "dangling", asBytes("first"));
    EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(folder / "link")));
    EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(folder / "dangling")));
    EXPECT_EQ(readText(folder / "link"), "new");
    EXPECT_EQ(readText(folder / "elsewhere/target"), "precious");
    EXPECT_FALSE(std::filesystem::exists(folder / "elsewhere/new"));
    EXPECT_THAT(namesIn(folder), UnorderedElementsAre("link", "dangling", "elsewhere"));
}

TEST(WholeFile, ReplacesALinkItselfInAnOpenFolderToo) {
    const fakes::TemporaryFolder folder;
    LinuxFileSystem files;
    writeText(folder / "elsewhere/target", "precious");
    std::filesystem::create_symlink("elsewhere/target", folder / "link");
    writeWholeFile(*files.openFolder(folder.path()), FileName("link"), asBytes("new"), 0600);
    EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(folder / "link")));
    EXPECT_EQ(readText(folder / "link"), "new");
    EXPECT_EQ(readText(folder / "elsewhere/target"), "precious");
    EXPECT_EQ(files.status(folder / "link").value().permissions, 0600U);
}

bool otherProcessGets(const Path& lock) {
    const pid_t process = ::fork();
    if (process == 0) {
        LinuxFileSystem files;
        const auto file = files.open(lock, OpenMode::openOrCreate);
        ::_exit(file->tryLock() ? 1 : 2);
    }
    int status = 0;
    ::waitpid(process, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 1;
}

TEST(FileLock, KeepsAnotherProcessOutUntilItGoes) {
    const fakes::TemporaryFolder folder;
    LinuxFileSystem files;
    {
        const FileLock lock(files, folder / "a");
        EXPECT_FALSE(otherProcessGets(folder / "a.lock"));
    }
    EXPECT_TRUE(otherProcessGets(folder / "a.lock"));
    EXPECT_EQ(files.status(folder / "a.lock").value().permissions, 0600U);
}

TEST(KeptFileLock, KeepsAnotherProcessOutForEachOfItsTurns) {
    const fakes::TemporaryFolder folder;
    LinuxFileSystem files;
    KeptFileLock lock(files, folder / "a");
    EXPECT_THAT(namesIn(folder), IsEmpty());
    for (int turns = 0; turns < 2; ++turns) {
        {
            const KeptFileLock::Turn turn = lock.take();
            EXPECT_FALSE(otherProcessGets(folder / "a.lock"));
        }
        EXPECT_TRUE(otherProcessGets(folder / "a.lock"));
    }
    EXPECT_EQ(files.status(folder / "a.lock").value().permissions, 0600U);
}

TEST(KeptFileLock, LocksTheFileThatIsThereAfterSomebodyHasTidiedUp) {
    const fakes::TemporaryFolder folder;
    LinuxFileSystem files;
    KeptFileLock lock(files, folder / "a");
    {
        const KeptFileLock::Turn turn = lock.take();
    }
    for (const bool isReplaced : {false, true}) {
        std::filesystem::remove(folder / "a.lock");
        if (isReplaced) {
            writeText(folder / "a.lock", "");
        }
        const KeptFileLock::Turn turn = lock.take();
        EXPECT_FALSE(otherProcessGets(folder / "a.lock")) << isReplaced;
    }
}

TEST(KeptFileLock, SaysWhyItCannotBeTakenAndCanBeTakenLater) {
    const fakes::TemporaryFolder folder;
    LinuxFileSystem files;
    KeptFileLock lock(files, folder / "missing/a");
    EXPECT_THROW(static_cast<void>(lock.take()), SystemError);
    std::filesystem::create_directory(folder / "missing");
    const KeptFileLock::Turn turn = lock.take();
    EXPECT_FALSE(otherProcessGets(folder / "missing/a.lock"));
}

TEST(FileLock, LetsProcessesCountTogetherWithoutLosingOne) {
    const fakes::TemporaryFolder folder;
    LinuxFileSystem files;
    writeText(folder / "count", "0");
    constexpr int rounds = 50;
    const auto count = [&folder] {
        LinuxFileSystem own;
        for (int i = 0; i < rounds; ++i) {
            const FileLock lock(own, folder / "count");
            const int value = std::stoi(toText(readWholeFile(own, folder / "count")));
            writeWholeFile(own, folder / "count", asBytes(std::to_string(value + 1)));
        }
    };
    const pid_t process = ::fork();
    if (process == 0) {
        count();
        ::_exit(0);
    }
    std::thread second(count);
    count();
    second.join();
    int status = -1;
    ::waitpid(process, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(readText(folder / "count"), std::to_string(3 * rounds));
}

TEST(FileLock, RefusesALinkInPlaceOfItsFile) {
    const fakes::TemporaryFolder folder;
    LinuxFileSystem files;
    std::filesystem::create_symlink("elsewhere", folder / "a.lock");
    EXPECT_THROW(FileLock(files, folder / "a"), SystemError);
    EXPECT_FALSE(std::filesystem::exists(folder / "elsewhere"));
}

} // namespace
} // namespace orlinth::platform
