#include "fakes/MemoryFileSystem.h"
#include "fakes/TemporaryFolder.h"
#include "platform/SystemError.h"
#include "platform/linux/LinuxFileSystem.h"

#include <gmock/gmock.h>

#include <csignal>
#include <fcntl.h>
#include <functional>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace orlinth::platform {
namespace {

using fakes::MemoryFileSystem;
using fakes::Operation;
using fakes::readText;
using fakes::writeText;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

std::error_code failureOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const SystemError& error) {
        return error.code();
    }
    return {};
}

/// A folder on the real disk, and the same in memory.
class RealFolder {
public:
    [[nodiscard]] FileSystem& files() { return files_; }
    [[nodiscard]] Path path(const std::string& name) const { return folder_ / name; }
    [[nodiscard]] std::string content(const std::string& name) const { return readText(path(name)); }
    void put(const std::string& name, const std::string& text) { writeText(path(name), text); }
    void putFolder(const std::string& name) { std::filesystem::create_directory(path(name)); }
    void putLink(const std::string& name, const std::string& target) {
        std::filesystem::create_symlink(target, path(name));
    }
    void putPipe(const std::string& name) { ASSERT_EQ(::mkfifo(path(name).c_str(), 0600), 0); }

private:
    fakes::TemporaryFolder folder_;
    LinuxFileSystem files_;
};

class MemoryFolder {
public:
    MemoryFolder() { files_.putFolder("/folder"); }
    [[nodiscard]] FileSystem& files() { return files_; }
    [[nodiscard]] Path path(const std::string& name) const { return Path("/folder") / name; }
    [[nodiscard]] std::string content(const std::string& name) const { return files_.content(path(name)).value_or(""); }
    void put(const std::string& name, const std::string& text) { files_.put(path(name), text); }
    void putFolder(const std::string& name) { files_.putFolder(path(name)); }
    void putLink(const std::string& name, const std::string& target) { files_.putLink(path(name), target); }
    void putPipe(const std::string& name) { files_.putSpecial(path(name)); }

private:
    MemoryFileSystem files_;
};

template <typename Folder>
class CopyToNew : public testing::Test {
protected:
    std::error_code failureToCopy(const std::string& from, const std::string& to) {
        return failureOf([&] { folder.files().copyToNew(folder.path(from), folder.path(to), 0600); });
    }
    std::vector<std::string> names() { return folder.files().list(folder.path("")); }

    Folder folder;
};
using BothFolders = testing::Types<RealFolder, MemoryFolder>;
TYPED_TEST_SUITE(CopyToNew, BothFolders);

TYPED_TEST(CopyToNew, CopiesTheContentAndGivesItItsOwnPermissions) {
    std::string text = "Hello";
    text += std::string(300'000, '\0') + "\xFF\n";
    this->folder.put("a", text);
    this->folder.files().setPermissions(this->folder.path("a"), 0644);
    EXPECT_EQ(this->failureToCopy("a", "b"), std::error_code());
    EXPECT_TRUE(this->folder.content("b") == text);
    EXPECT_EQ(this->folder.files().status(this->folder.path("b")).value().permissions, 0600U);
    this->folder.put("a", "changed");
    EXPECT_TRUE(this->folder.content("b") == text) << "a copy, no second name";
}

TYPED_TEST(CopyToNew, CopiesAnEmptyFile) {
    this->folder.put("a", "");
    EXPECT_EQ(this->failureToCopy("a", "b"), std::error_code());
    EXPECT_THAT(this->names(), UnorderedElementsAre("a", "b"));
    EXPECT_EQ(this->folder.content("b"), "");
}

TYPED_TEST(CopyToNew, FollowsALinkToTheFile) {
    this->folder.put("a", "content");
    this->folder.putLink("first", "second");
    this->folder.putLink("second", "a");
    EXPECT_EQ(this->failureToCopy("first", "b"), std::error_code());
    EXPECT_EQ(this->folder.content("b"), "content");
    EXPECT_EQ(this->folder.files().resolveLinks(this->folder.path("b")), this->folder.path("b")) << "no link itself";
}

TYPED_TEST(CopyToNew, RefusesWhatIsNoRegularFileAndLeavesNothing) {
    this->folder.putFolder("sub");
    this->folder.putPipe("pipe");
    this->folder.putLink("link", "sub");
    this->folder.putLink("dangling", "nowhere");
    EXPECT_EQ(this->failureToCopy("sub", "b"), std::errc::is_a_directory);
    EXPECT_EQ(this->failureToCopy("link", "b"), std::errc::is_a_directory);
    EXPECT_EQ(this->failureToCopy("pipe", "b"), std::errc::invalid_argument);
    EXPECT_EQ(this->failureToCopy("dangling", "b"), std::errc::no_such_file_or_directory);
    EXPECT_EQ(this->failureToCopy("missing", "b"), std::errc::no_such_file_or_directory);
    EXPECT_THAT(this->names(), UnorderedElementsAre("sub", "pipe", "link", "dangling"));
}

TYPED_TEST(CopyToNew, ReplacesNothingThatHasTheName) {
    this->folder.put("a", "new");
    this->folder.put("taken", "old");
    this->folder.putFolder("sub");
    this->folder.putLink("dangling", "nowhere");
    for (const char* name : {"taken", "sub", "dangling", "a"}) {
        EXPECT_EQ(this->failureToCopy("a", name), std::errc::file_exists) << name;
    }
    EXPECT_EQ(this->folder.content("taken"), "old");
    EXPECT_EQ(this->folder.content("a"), "new");
    EXPECT_THAT(this->names(), UnorderedElementsAre("a", "taken", "sub", "dangling"));
}

TYPED_TEST(CopyToNew, SaysWhyThereCanBeNoFileOfThatName) {
    this->folder.put("a", "content");
    EXPECT_EQ(this->failureToCopy("a", "missing/b"), std::errc::no_such_file_or_directory);
    EXPECT_EQ(this->failureToCopy("a", "a/b"), std::errc::not_a_directory);
    EXPECT_EQ(this->failureToCopy("a", std::string(256, 'b')), std::errc::filename_too_long);
}

TYPED_TEST(CopyToNew, LetsOneOfManyAtOnceHaveTheName) {
    this->folder.put("0", "0");
    this->folder.put("1", "1");
    this->folder.put("2", "2");
    std::vector<std::error_code> failures(3);
    std::vector<std::thread> threads;
    for (std::size_t number = 0; number < failures.size(); ++number) {
        threads.emplace_back(
            [this, number, &failures] { failures[number] = this->failureToCopy(std::to_string(number), "b"); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const std::string winner = this->folder.content("b");
    for (std::size_t number = 0; number < failures.size(); ++number) {
        const std::error_code expected =
            winner == std::to_string(number) ? std::error_code() : std::make_error_code(std::errc::file_exists);
        EXPECT_EQ(failures[number], expected) << number;
    }
}

TYPED_TEST(CopyToNew, IsFollowedByRemovingAnEmptyFolderOnly) {
    FileSystem& files = this->folder.files();
    this->folder.putFolder("sub");
    this->folder.put("sub/a", "");
    this->folder.putLink("link", "sub");
    const auto removing = [&](const std::string& name) {
        return failureOf([&] { files.removeDirectory(this->folder.path(name)); });
    };
    EXPECT_EQ(removing("sub"), std::errc::directory_not_empty);
    EXPECT_EQ(removing("link"), std::errc::not_a_directory);
    EXPECT_EQ(removing("sub/a"), std::errc::not_a_directory);
    EXPECT_EQ(removing("missing"), std::errc::no_such_file_or_directory);
    files.remove(this->folder.path("sub/a"));
    EXPECT_EQ(removing("sub"), std::error_code());
    EXPECT_THAT(this->names(), ElementsAre("link"));
}

// ---- what only the one or the other has

class LinuxCopyTest : public testing::Test {
protected:
    void write(const Path& path, std::int64_t offset, std::string_view text) {
        const std::unique_ptr<File> file = files.open(path, OpenMode::openOrCreate);
        file->seek(ByteOffset(offset));
        file->write(asBytes(text));
    }
    std::string read(const Path& path, std::int64_t offset, std::size_t count) {
        const std::unique_ptr<File> file = files.open(path, OpenMode::read);
        file->seek(ByteOffset(offset));
        Bytes content(count);
        content.resize(file->read(content));
        return toText(content);
    }
    static std::int64_t bytesOnDisk(const Path& path) {
        struct stat status{};
        EXPECT_EQ(::stat(path.c_str(), &status), 0);
        return status.st_blocks * 512;
    }

    fakes::TemporaryFolder folder;
    LinuxFileSystem files;
};

TEST_F(LinuxCopyTest, CopiesAFileOfManyGibibytesWithoutFillingItsHoles) {
    constexpr std::int64_t gibibyte = 1 << 30;
    const Path from = folder / "a";
    write(from, 0, "begin");
    write(from, 3 * gibibyte - 3, "middle"); // over a limit of one call of the kernel's
    write(from, 5 * gibibyte, "late");
    ASSERT_EQ(::truncate(from.c_str(), 6 * gibibyte), 0);
    ASSERT_LT(bytesOnDisk(from), gibibyte) << "the file system has no holes";
    files.copyToNew(from, folder / "b", 0600);
    EXPECT_EQ(files.status(folder / "b").value().size, 6 * gibibyte);
    EXPECT_EQ(read(folder / "b", 0, 6), std::string("begin\0", 6));
    EXPECT_EQ(read(folder / "b", 3 * gibibyte - 4, 8), std::string("\0middle\0", 8));
    EXPECT_EQ(read(folder / "b", 5 * gibibyte, 5), std::string("late\0", 5));
    EXPECT_EQ(read(folder / "b", 6 * gibibyte - 1, 2), std::string(1, '\0'));
    EXPECT_LT(bytesOnDisk(folder / "b"), gibibyte);
}

TEST_F(LinuxCopyTest, CopiesAFileThatIsAllHole) {
    writeText(folder / "a", "");
    ASSERT_EQ(::truncate((folder / "a").c_str(), 10'000), 0);
    files.copyToNew(folder / "a", folder / "b", 0600);
    EXPECT_TRUE(readText(folder / "b") == std::string(10'000, '\0'));
}

TEST_F(LinuxCopyTest, CopiesMoreThanAPieceOfDataByteForByte) {
    std::string text;
    for (int number = 0; text.size() < 3'000'000; ++number) {
        text += std::to_string(number) + ",";
    }
    writeText(folder / "a", text);
    files.copyToNew(folder / "a", folder / "b", 0600);
    EXPECT_TRUE(readText(folder / "b") == text);
}

TEST_F(LinuxCopyTest, CopiesFilesOfTheKernelsThatSayTheyAreEmpty) {
    ASSERT_EQ(files.status("/proc/version").value().size, 0);
    files.copyToNew("/proc/version", folder / "b", 0600);
    EXPECT_EQ(readText(folder / "b"), readText("/proc/version"));
    EXPECT_NE(readText(folder / "b"), "");
    files.copyToNew("/proc/self/limits", folder / "c", 0600);
    EXPECT_THAT(readText(folder / "c"), testing::HasSubstr("Max open files"));
}

TEST_F(LinuxCopyTest, CopiesFromOneFileSystemToAnother) {
    if (files.status("/dev/shm").value().device == files.status(folder.path()).value().device) {
        GTEST_FAIL() << "/dev/shm is no file system of its own here";
    }
    const Path elsewhere = "/dev/shm" / folder.path().filename();
    writeText(elsewhere, "content");
    files.copyToNew(elsewhere, folder / "b", 0600);
    files.remove(elsewhere);
    EXPECT_EQ(readText(folder / "b"), "content");
}

TEST_F(LinuxCopyTest, NeitherWaitsForAPipeNorDisturbsItsWriter) {
    ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), 0600), 0);
    const int both = ::open((folder / "pipe").c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK);
    ASSERT_EQ(::write(both, "x", 1), 1);
    EXPECT_EQ(failureOf([&] { files.copyToNew(folder / "pipe", folder / "b", 0600); }), std::errc::invalid_argument);
    char left = 0;
    EXPECT_EQ(::read(both, &left, 1), 1);
    EXPECT_EQ(left, 'x');
    ::close(both);
}

TEST_F(LinuxCopyTest, RefusesDevicesAndSockets) {
    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (folder / "socket").native().copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    for (const Path& path : {Path("/dev/zero"), Path("/dev/null"), folder / "socket"}) {
        EXPECT_EQ(failureOf([&] { files.copyToNew(path, folder / "b", 0600); }), std::errc::invalid_argument) << path;
    }
    ::close(socket);
    EXPECT_FALSE(files.exists(folder / "b"));
}

TEST_F(LinuxCopyTest, GivesTheCopyItsPermissionsFromTheFirstByteAndNoMoreThanAsked) {
    const mode_t before = ::umask(0);
    writeText(folder / "a", "content");
    files.copyToNew(folder / "a", folder / "b", 0600);
    files.copyToNew(folder / "a", folder / "c", 0640);
    ::umask(before);
    EXPECT_EQ(files.status(folder / "b").value().permissions, 0600U);
    EXPECT_EQ(files.status(folder / "c").value().permissions, 0640U);
}

TEST_F(LinuxCopyTest, LeavesNothingWhereTheDiskIsFull) {
    writeText(folder / "a", std::string(100'000, 'x'));
    rlimit before{};
    ::getrlimit(RLIMIT_FSIZE, &before);
    void (*const handler)(int) = ::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{1000, before.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &limit); // no file grows beyond it: like a full disk, without a disk
    const std::error_code failure = failureOf([&] { files.copyToNew(folder / "a", folder / "b", 0600); });
    ::setrlimit(RLIMIT_FSIZE, &before);
    ::signal(SIGXFSZ, handler);
    EXPECT_EQ(failure, std::errc::file_too_large);
    EXPECT_THAT(files.list(folder.path()), ElementsAre("a"));
}

TEST(MemoryCopyTest, LeavesNothingWhereTheDiskIsFull) {
    MemoryFileSystem files;
    files.put("/a", "0123456789");
    files.setCapacity(15);
    EXPECT_EQ(failureOf([&] { files.copyToNew("/a", "/b", 0600); }), std::errc::no_space_on_device);
    EXPECT_THAT(files.allFiles(), ElementsAre("/a"));
}

TEST(MemoryCopyTest, FailsAndCrashesAsOtherWritesDo) {
    for (const Operation operation :
         {Operation::status, Operation::open, Operation::read, Operation::create, Operation::write}) {
        MemoryFileSystem files;
        files.put("/a", "0123456789");
        files.addFault({.operation = operation, .errorNumber = EIO, .times = 1, .writtenBytes = 3});
        EXPECT_EQ(failureOf([&] { files.copyToNew("/a", "/b", 0600); }), std::errc::io_error);
        EXPECT_THAT(files.allFiles(), ElementsAre("/a"));
    }
    MemoryFileSystem files;
    files.put("/a", "0123456789");
    files.crashAfter(1, 3);
    EXPECT_THROW(files.copyToNew("/a", "/b", 0600), fakes::Crash);
    EXPECT_EQ(files.afterCrash(fakes::CrashKind::processKill)->content("/b"), "012") << "nobody is left to clear up";
}

TEST(MemoryCopyTest, IsNotOnTheDiskBeforeItIsFlushed) {
    MemoryFileSystem files;
    files.put("/a", "0123456789");
    files.copyToNew("/a", "/b", 0600);
    EXPECT_FALSE(files.afterCrash(fakes::CrashKind::powerCut)->exists("/b"));
    EXPECT_EQ(files.afterCrash(fakes::CrashKind::powerCutNamesFirst)->content("/b"), std::string(10, '\0'));
}

TEST(MemoryCopyTest, AFolderThatWasRemovedIsBackAfterAPowerCutUnlessThatWasFlushed) {
    MemoryFileSystem files;
    files.putFolder("/a/b");
    files.removeDirectory("/a/b");
    EXPECT_FALSE(files.exists("/a/b"));
    EXPECT_TRUE(files.afterCrash(fakes::CrashKind::powerCut)->exists("/a/b"));
    files.flushDirectory("/a");
    EXPECT_FALSE(files.afterCrash(fakes::CrashKind::powerCut)->exists("/a/b"));
    EXPECT_EQ(failureOf([&] { files.removeDirectory("/"); }), std::errc::device_or_resource_busy);
}

} // namespace
} // namespace orlinth::platform
