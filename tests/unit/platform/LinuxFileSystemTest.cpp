#include "platform/linux/LinuxFileSystem.h"

#include "fakes/TemporaryFolder.h"
#include "platform/SystemError.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <fcntl.h>
#include <functional>
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

std::string failureOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const SystemError& error) {
        return error.description();
    }
    return "";
}

/// The file-mode mask of the process, for a while.
class Umask {
public:
    explicit Umask(mode_t mask) : before_(::umask(mask)) {}
    Umask(const Umask&) = delete;
    Umask& operator=(const Umask&) = delete;
    ~Umask() { ::umask(before_); }

private:
    mode_t before_;
};

/// Files of this process cannot grow beyond `bytes`, for a while: what a full disk looks like, without a disk.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) : handler_(::signal(SIGXFSZ, SIG_IGN)) {
        ::getrlimit(RLIMIT_FSIZE, &before_);
        const rlimit limit{bytes, before_.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;
    ~FileSizeLimit() {
        ::setrlimit(RLIMIT_FSIZE, &before_);
        ::signal(SIGXFSZ, handler_);
    }

private:
    rlimit before_{};
    void (*handler_)(int);
};

/// What `child` returns, run in a process of its own.
int inAnotherProcess(const std::function<int()>& child) {
    const pid_t process = ::fork();
    if (process == 0) {
        ::_exit(child());
    }
    int status = 0;
    ::waitpid(process, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class LinuxFileSystemTest : public testing::Test {
protected:
    fakes::TemporaryFolder folder_;
    LinuxFileSystem files_;

    std::string contentOf(File& file, std::size_t atMost = 100) {
        Bytes content(atMost);
        content.resize(file.read(content));
        return toText(content);
    }
    std::string failureToOpen(const Path& path, OpenMode mode, Links links = Links::follow) {
        return failureOf([&] { static_cast<void>(files_.open(path, mode, links)); });
    }
    std::uint32_t permissionsOf(const Path& path) { return files_.status(path).value().permissions; }
};

TEST_F(LinuxFileSystemTest, ReadsWritesAndSeeks) {
    const std::unique_ptr<File> file = files_.open(folder_ / "a", OpenMode::openOrCreate);
    file->write(asBytes("Hello, world"));
    file->seek(ByteOffset(7));
    EXPECT_EQ(contentOf(*file), "world");
    EXPECT_EQ(contentOf(*file), "");
    file->seek(ByteOffset());
    file->write(asBytes("J"));
    file->flush();
    EXPECT_EQ(readText(folder_ / "a"), "Jello, world");
}

TEST_F(LinuxFileSystemTest, TellsSizeKindTimeAndIdentity) {
    writeText(folder_ / "a", "12345");
    ::chmod((folder_ / "a").c_str(), 0640);
    const timespec times[2] = {{1, 2}, {1'700'000'000, 123'456'789}};
    ASSERT_EQ(::utimensat(AT_FDCWD, (folder_ / "a").c_str(), times, 0), 0);
    const FileStatus status = files_.status(folder_ / "a").value();
    EXPECT_EQ(status.kind, FileKind::regular);
    EXPECT_EQ(status.size, 5);
    EXPECT_EQ(status.modifiedAt, fromEpochNanoseconds(1'700'000'000'123'456'789));
    EXPECT_EQ(status.permissions, 0640U);
    EXPECT_NE(status.inode, 0U);
    const FileStatus open = files_.open(folder_ / "a", OpenMode::read)->status();
    EXPECT_EQ(open.inode, status.inode);
    EXPECT_EQ(open.device, status.device);
    EXPECT_EQ(files_.status(folder_.path()).value().kind, FileKind::directory);
    EXPECT_EQ(files_.status("/dev/null").value().kind, FileKind::other);
}

TEST_F(LinuxFileSystemTest, HasNoStatusOfWhatIsNotThere) {
    writeText(folder_ / "file", "");
    std::filesystem::create_symlink("nowhere", folder_ / "dangling");
    EXPECT_EQ(files_.status(folder_ / "missing"), std::nullopt);
    EXPECT_EQ(files_.status(folder_ / "file/below"), std::nullopt);
    EXPECT_EQ(files_.status(folder_ / "dangling"), std::nullopt);
    EXPECT_FALSE(files_.exists(folder_ / "missing"));
    EXPECT_FALSE(files_.exists(folder_ / "dangling"));
    EXPECT_TRUE(files_.exists(folder_ / "file"));
}

TEST_F(LinuxFileSystemTest, DoesNotCallAStatusThatItCannotSeeAMissingFile) {
    const Path tooLong = folder_ / std::string(300, 'x');
    EXPECT_EQ(failureOf([&] { static_cast<void>(files_.status(tooLong)); }), "File name too long");
    EXPECT_FALSE(files_.exists(tooLong));
}

TEST_F(LinuxFileSystemTest, OpensForReadingAndWritingOnlyWhatExists) {
    EXPECT_EQ(failureToOpen(folder_ / "missing", OpenMode::read), "No such file or directory");
    EXPECT_EQ(failureToOpen(folder_ / "missing", OpenMode::write), "No such file or directory");
    writeText(folder_ / "a", "12345");
    files_.open(folder_ / "a", OpenMode::write)->write(asBytes("ab"));
    EXPECT_EQ(readText(folder_ / "a"), "ab345");
}

TEST_F(LinuxFileSystemTest, RefusesANameThatIsTakenForANewFile) {
    writeText(folder_ / "a", "old");
    std::filesystem::create_symlink("nowhere", folder_ / "dangling");
    EXPECT_EQ(failureToOpen(folder_ / "a", OpenMode::createNew), "File exists");
    EXPECT_EQ(failureToOpen(folder_ / "dangling", OpenMode::createNew), "File exists");
    EXPECT_FALSE(std::filesystem::exists(folder_ / "nowhere"));
    EXPECT_EQ(readText(folder_ / "a"), "old");
}

TEST_F(LinuxFileSystemTest, FollowsALinkUnlessToldToRefuseIt) {
    writeText(folder_ / "target", "12345");
    std::filesystem::create_symlink("target", folder_ / "link");
    EXPECT_EQ(contentOf(*files_.open(folder_ / "link", OpenMode::read)), "12345");
    for (const OpenMode mode : {OpenMode::read, OpenMode::write, OpenMode::openOrCreate}) {
        EXPECT_EQ(failureToOpen(folder_ / "link", mode, Links::refuse), "Too many levels of symbolic links");
    }
}

TEST_F(LinuxFileSystemTest, OpensAFolderForItsLockOnly) {
    const std::unique_ptr<File> folder = files_.open(folder_.path(), OpenMode::read);
    EXPECT_TRUE(folder->tryLock());
    EXPECT_EQ(failureOf([&] { static_cast<void>(contentOf(*folder)); }), "Is a directory");
    EXPECT_EQ(failureToOpen(folder_.path(), OpenMode::write), "Is a directory");
}

TEST_F(LinuxFileSystemTest, DoesNotWaitForTheOtherEndOfANamedPipe) {
    ASSERT_EQ(::mkfifo((folder_ / "pipe").c_str(), 0600), 0);
    EXPECT_EQ(contentOf(*files_.open(folder_ / "pipe", OpenMode::read)), "");
    EXPECT_EQ(failureToOpen(folder_ / "pipe", OpenMode::write), "No such device or address");
}

TEST_F(LinuxFileSystemTest, GivesANewFileItsPermissionsFromTheFirstByte) {
    const Umask none(0);
    const std::unique_ptr<File> file = files_.open(folder_ / "key", OpenMode::createNew, Links::refuse, 0600);
    EXPECT_EQ(file->status().permissions, 0600U);
    static_cast<void>(files_.open(folder_ / "other", OpenMode::openOrCreate, Links::follow, 0640));
    EXPECT_EQ(permissionsOf(folder_ / "other"), 0640U);
    static_cast<void>(files_.open(folder_ / "other", OpenMode::openOrCreate, Links::follow, 0600));
    EXPECT_EQ(permissionsOf(folder_ / "other"), 0640U) << "an existing file keeps its own";
    files_.setPermissions(folder_ / "other", 0600);
    EXPECT_EQ(permissionsOf(folder_ / "other"), 0600U);
}

TEST_F(LinuxFileSystemTest, LeavesNoDescriptorToProgramsThatAreStarted) {
    const std::unique_ptr<File> file = files_.open(folder_ / "a", OpenMode::openOrCreate);
    const Path self = files_.resolveLinks(folder_ / "a");
    int found = 0;
    for (const std::string& name : files_.list("/proc/self/fd")) {
        std::error_code code;
        if (std::filesystem::read_symlink(Path("/proc/self/fd") / name, code) == self) {
            ++found;
            EXPECT_EQ(::fcntl(std::stoi(name), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
        }
    }
    EXPECT_EQ(found, 1);
}

TEST_F(LinuxFileSystemTest, ReportsAFullDiskInTheSystemsWords) {
    const std::unique_ptr<File> full = files_.open("/dev/full", OpenMode::write);
    EXPECT_EQ(failureOf([&] { full->write(asBytes("x")); }), "No space left on device");
}

TEST_F(LinuxFileSystemTest, WritesWhatFitsAndThenReportsWhyTheRestDoesNot) {
    const std::unique_ptr<File> file = files_.open(folder_ / "a", OpenMode::createNew);
    const FileSizeLimit limit(1000);
    const Bytes data(1500, std::byte{'x'});
    // The system takes 1000 bytes of it first: a short count, which is no error yet.
    EXPECT_EQ(failureOf([&] { file->write(data); }), "File too large");
    EXPECT_EQ(files_.status(folder_ / "a").value().size, 1000);
}

TEST_F(LinuxFileSystemTest, HandlesFilesBeyondFourGibibytes) {
    constexpr ByteOffset offset(5LL << 30);
    const std::unique_ptr<File> file = files_.open(folder_ / "big", OpenMode::openOrCreate);
    file->seek(offset);
    file->write(asBytes("end"));
    file->startWriteback(offset, 3);
    file->flush();
    EXPECT_EQ(file->status().size, (offset + 3).bytesBefore());
    file->seek(offset + 1);
    EXPECT_EQ(contentOf(*file), "nd");
    EXPECT_EQ(failureOf([&] { file->seek(ByteOffset(-1)); }), "Invalid argument");
}

TEST_F(LinuxFileSystemTest, StartsWritebackWithoutComplainingWhereItCannot) {
    files_.open("/dev/null", OpenMode::write)->startWriteback(ByteOffset(), 10);
    files_.open(folder_ / "a", OpenMode::createNew)->startWriteback(ByteOffset(-5), -5);
}

TEST_F(LinuxFileSystemTest, LocksAFileAgainstOtherProcessesUntilItIsClosed) {
    std::unique_ptr<File> file = files_.open(folder_ / "a", OpenMode::openOrCreate);
    EXPECT_TRUE(file->tryLock());
    const auto otherProcess = [this] { return files_.open(folder_ / "a", OpenMode::openOrCreate)->tryLock() ? 1 : 2; };
    EXPECT_EQ(inAnotherProcess(otherProcess), 2);
    EXPECT_FALSE(files_.open(folder_ / "a", OpenMode::openOrCreate)->tryLock()) << "the same process, another opening";
    file.reset();
    EXPECT_EQ(inAnotherProcess(otherProcess), 1);
}

/// Whether the kernel has put this thread of ours to sleep: the letter behind the name in its stat file.
bool isAsleep(pid_t thread) {
    const std::string stat = readText("/proc/self/task/" + std::to_string(thread) + "/stat");
    const std::size_t name = stat.rfind(") ");
    return name != std::string::npos && stat.at(name + 2) == 'S';
}

TEST_F(LinuxFileSystemTest, GoesOnWaitingForALockWhenSignalsInterruptIt) {
    struct sigaction quiet{};
    struct sigaction before{};
    quiet.sa_handler = [](int) {}; // without SA_RESTART, so that calls are interrupted
    ASSERT_EQ(::sigaction(SIGUSR1, &quiet, &before), 0);
    std::unique_ptr<File> holder = files_.open(folder_ / "a", OpenMode::openOrCreate);
    holder->lock();
    const std::unique_ptr<File> waiter = files_.open(folder_ / "a", OpenMode::openOrCreate);
    std::atomic<pid_t> waiting = 0;
    std::atomic<bool> locked = false;
    std::thread thread([&] {
        waiting = ::gettid();
        waiter->lock();
        locked = true;
    });
    for (int signals = 0; signals < 20;) {
        if (waiting != 0 && isAsleep(waiting)) {
            ::pthread_kill(thread.native_handle(), SIGUSR1);
            ++signals;
        }
        std::this_thread::yield();
    }
    EXPECT_FALSE(locked);
    holder.reset();
    thread.join();
    EXPECT_TRUE(locked);
    ::sigaction(SIGUSR1, &before, nullptr);
}

TEST_F(LinuxFileSystemTest, CreatesFoldersWithTheirParentsAndLeavesExistingOnesAlone) {
    const Umask usual(022);
    ::chmod(folder_.path().c_str(), 0755);
    files_.createDirectories(folder_ / "a/b/c", 0700);
    EXPECT_EQ(permissionsOf(folder_.path()), 0755U);
    EXPECT_EQ(permissionsOf(folder_ / "a"), 0700U);
    EXPECT_EQ(permissionsOf(folder_ / "a/b/c"), 0700U);
    files_.createDirectories(folder_ / "a/b/c", 0777);
    EXPECT_EQ(permissionsOf(folder_ / "a/b/c"), 0700U);
    files_.createDirectories(folder_ / "d/e/");
    EXPECT_EQ(permissionsOf(folder_ / "d/e"), 0755U);
}

TEST_F(LinuxFileSystemTest, NeverMakesAFolderWiderThanAsked) {
    const Umask none(0);
    files_.createDirectories(folder_ / "a/b", 0700);
    EXPECT_EQ(permissionsOf(folder_ / "a"), 0700U);
    EXPECT_EQ(permissionsOf(folder_ / "a/b"), 0700U);
}

TEST_F(LinuxFileSystemTest, TakesNothingFromTheOwnerWhateverTheUmaskIs) {
    const Umask all(0777);
    files_.createDirectories(folder_ / "a/b", 0700);
    EXPECT_EQ(permissionsOf(folder_ / "a"), 0700U);
    EXPECT_EQ(permissionsOf(folder_ / "a/b"), 0700U);
    static_cast<void>(files_.open(folder_ / "a/key", OpenMode::createNew, Links::refuse, 0600));
    EXPECT_EQ(permissionsOf(folder_ / "a/key"), 0600U);
    static_cast<void>(files_.open(folder_ / "a/lock", OpenMode::openOrCreate, Links::refuse, 0600));
    EXPECT_EQ(permissionsOf(folder_ / "a/lock"), 0600U);
    files_.copyToNew(folder_ / "a/key", folder_ / "a/copy", 0600);
    EXPECT_EQ(permissionsOf(folder_ / "a/copy"), 0600U);
    files_.createDirectories(folder_ / "shared");
    EXPECT_EQ(permissionsOf(folder_ / "shared"), 0700U) << "what the umask takes from others stays taken";
}

TEST_F(LinuxFileSystemTest, DoesNotCreateFoldersThroughAFile) {
    writeText(folder_ / "file", "");
    std::filesystem::create_symlink("nowhere", folder_ / "dangling");
    std::filesystem::create_directory_symlink(folder_.path(), folder_ / "link");
    EXPECT_EQ(failureOf([&] { files_.createDirectories(folder_ / "file"); }), "File exists");
    EXPECT_EQ(failureOf([&] { files_.createDirectories(folder_ / "file/below"); }), "Not a directory");
    EXPECT_EQ(failureOf([&] { files_.createDirectories(folder_ / "dangling"); }), "File exists");
    EXPECT_EQ(failureOf([&] { files_.createDirectories(""); }), "No such file or directory");
    EXPECT_EQ(failureOf([&] { files_.createDirectories(folder_ / "link"); }), "");
    EXPECT_EQ(failureOf([&] { files_.createDirectories("/"); }), "");
}

TEST_F(LinuxFileSystemTest, ReplacesOnRename) {
    writeText(folder_ / "a", "new");
    writeText(folder_ / "b", "old");
    files_.rename(folder_ / "a", folder_ / "b");
    EXPECT_EQ(readText(folder_ / "b"), "new");
    EXPECT_THAT(files_.list(folder_.path()), ElementsAre("b"));
    EXPECT_EQ(failureOf([&] { files_.rename(folder_ / "a", folder_ / "b"); }), "No such file or directory");
}

/// renameNoReplace and its two stand-ins for lesser file systems.
class RenameNoReplace : public LinuxFileSystemTest, public testing::WithParamInterface<int> {
protected:
    bool move(std::string_view from, std::string_view to) {
        switch (GetParam()) {
        case 0:
            return files_.renameNoReplace(folder_ / from, folder_ / to);
        case 1:
            return renameNoReplaceByLink(folder_ / from, folder_ / to);
        default:
            return renameNoReplaceByCheck(folder_ / from, folder_ / to);
        }
    }
};

TEST_P(RenameNoReplace, MovesToAFreeName) {
    writeText(folder_ / "a", "content");
    EXPECT_TRUE(move("a", "b"));
    EXPECT_EQ(readText(folder_ / "b"), "content");
    EXPECT_THAT(files_.list(folder_.path()), ElementsAre("b"));
}

TEST_P(RenameNoReplace, LeavesBothAloneWhereTheNameIsTakenByAnythingAtAll) {
    writeText(folder_ / "a", "content");
    writeText(folder_ / "file", "other");
    std::filesystem::create_directory(folder_ / "folder");
    std::filesystem::create_symlink("nowhere", folder_ / "dangling");
    for (const char* taken : {"file", "folder", "dangling"}) {
        EXPECT_FALSE(move("a", taken)) << taken;
    }
    EXPECT_EQ(readText(folder_ / "a"), "content");
    EXPECT_EQ(readText(folder_ / "file"), "other");
    EXPECT_THAT(files_.list(folder_.path()), UnorderedElementsAre("a", "file", "folder", "dangling"));
}

TEST_P(RenameNoReplace, MovesAFolder) {
    writeText(folder_ / "a/inside", "content");
    EXPECT_TRUE(move("a", "b"));
    EXPECT_EQ(readText(folder_ / "b/inside"), "content");
}

TEST_P(RenameNoReplace, FailsWhereThereIsNothingToMoveOrNowhereToMoveItTo) {
    writeText(folder_ / "here", "content");
    EXPECT_EQ(failureOf([&] { static_cast<void>(move("a", "b")); }), "No such file or directory");
    EXPECT_EQ(failureOf([&] { static_cast<void>(move("here", "missing/b")); }), "No such file or directory");
    EXPECT_EQ(failureOf([&] { static_cast<void>(move("here", "here/b")); }), "Not a directory");
    EXPECT_EQ(readText(folder_ / "here"), "content");
}

INSTANTIATE_TEST_SUITE_P(OnEveryFileSystem, RenameNoReplace, testing::Values(0, 1, 2));

TEST_F(LinuxFileSystemTest, RemovesAFileAndALinkButNotItsTarget) {
    writeText(folder_ / "a", "");
    std::filesystem::create_symlink("a", folder_ / "link");
    files_.remove(folder_ / "link");
    EXPECT_THAT(files_.list(folder_.path()), ElementsAre("a"));
    files_.remove(folder_ / "a");
    EXPECT_THAT(files_.list(folder_.path()), IsEmpty());
    EXPECT_EQ(failureOf([&] { files_.remove(folder_ / "a"); }), "No such file or directory");
}

TEST_F(LinuxFileSystemTest, FollowsAChainOfLinksToItsEndAlsoWhereNothingIsThere) {
    std::filesystem::create_directory(folder_ / "sub");
    std::filesystem::create_symlink("sub/second", folder_ / "first");
    std::filesystem::create_symlink("../target", folder_ / "sub/second");
    std::filesystem::create_symlink(folder_ / "first", folder_ / "absolute");
    EXPECT_EQ(files_.resolveLinks(folder_ / "absolute"), folder_ / "sub/../target");
    writeText(folder_ / "target", "here");
    EXPECT_EQ(readText(files_.resolveLinks(folder_ / "absolute")), "here");
    EXPECT_EQ(files_.resolveLinks(folder_ / "target"), folder_ / "target");
    EXPECT_EQ(files_.resolveLinks(folder_ / "missing"), folder_ / "missing");
}

TEST_F(LinuxFileSystemTest, GivesUpOnLinksThatRunInACircle) {
    std::filesystem::create_symlink("b", folder_ / "a");
    std::filesystem::create_symlink("a", folder_ / "b");
    EXPECT_EQ(failureOf([&] { static_cast<void>(files_.resolveLinks(folder_ / "a")); }),
              "Too many levels of symbolic links");
}

TEST_F(LinuxFileSystemTest, ListsEveryNameOfAFolderWhateverItsBytes) {
    writeText(folder_ / ".hidden", "");
    writeText(folder_ / "caf\xE9", "");
    std::filesystem::create_directory(folder_ / "folder");
    EXPECT_THAT(files_.list(folder_.path()), UnorderedElementsAre(".hidden", "caf\xE9", "folder"));
    EXPECT_EQ(failureOf([&] { static_cast<void>(files_.list(folder_ / ".hidden")); }), "Not a directory");
    EXPECT_EQ(failureOf([&] { static_cast<void>(files_.list(folder_ / "none")); }), "No such file or directory");
}

TEST_F(LinuxFileSystemTest, FlushesAFolderAlsoTheCurrentOneAndOddOnes) {
    files_.flushDirectory(folder_.path());
    files_.flushDirectory("");
    files_.flushDirectory("/proc"); // answers EINVAL
    EXPECT_EQ(failureOf([&] { files_.flushDirectory(folder_ / "missing"); }), "No such file or directory");
}

} // namespace
} // namespace orlinth::platform
