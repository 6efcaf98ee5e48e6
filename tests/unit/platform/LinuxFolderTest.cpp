#include "platform/linux/LinuxFolder.h"

#include "fakes/TemporaryFolder.h"
#include "platform/SystemError.h"
#include "platform/linux/LinuxFileSystem.h"

#include <gmock/gmock.h>

#include <array>
#include <cstddef>
#include <fcntl.h>
#include <functional>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
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

TEST(FileName, IsOneNameAndNeverAWayElsewhere) {
    for (const std::string& text : {std::string(), std::string("."), std::string(".."), std::string("a/b"),
                                    std::string("/"), std::string("a/"), std::string("a\0b", 3)}) {
        EXPECT_EQ(failureOf([&] { static_cast<void>(FileName(text)); }), "Invalid argument") << text;
    }
    for (const char* text : {"a", "...", ".a", "a b", "\xff", "\\", "-rf"}) {
        EXPECT_EQ(FileName(text).text(), text);
    }
    EXPECT_EQ((FileName("a") + ".partial").text(), "a.partial");
    EXPECT_EQ(failureOf([] { static_cast<void>(FileName("a") + "/b"); }), "Invalid argument");
}

class LinuxFolderTest : public testing::Test {
protected:
    [[nodiscard]] std::string write(const std::string& name, const std::string& text,
                                    OpenMode mode = OpenMode::createNew) {
        return failureOf([&] { folder_->open(FileName(name), mode)->write(asBytes(text)); });
    }
    [[nodiscard]] std::string failureToOpen(const std::string& name, OpenMode mode) {
        return failureOf([&] { static_cast<void>(folder_->open(FileName(name), mode)); });
    }

    static constexpr std::uint32_t ordinary_ = 0644;
    fakes::TemporaryFolder outside_;
    Path inside_ = outside_ / "downloads";
    std::unique_ptr<Folder> folder_ = (std::filesystem::create_directory(inside_), openLinuxFolder(inside_, ordinary_));
};

TEST_F(LinuxFolderTest, MakesLooksAtMovesListsAndRemovesFiles) {
    EXPECT_EQ(write("a", "content"), "");
    EXPECT_EQ(readText(inside_ / "a"), "content");
    EXPECT_EQ(write("a", "again"), "File exists");
    EXPECT_EQ(write("a", "C", OpenMode::write), "");
    EXPECT_EQ(readText(inside_ / "a"), "Content");
    const FileStatus status = folder_->status(FileName("a")).value();
    EXPECT_EQ(status.kind, FileKind::regular);
    EXPECT_EQ(status.size, 7);
    EXPECT_EQ(status.names, 1U);
    EXPECT_EQ(status.owner, ::geteuid());
    EXPECT_FALSE(folder_->status(FileName("b")));
    EXPECT_EQ(write("b", "b"), "");
    EXPECT_FALSE(folder_->renameNoReplace(FileName("a"), FileName("b")));
    EXPECT_TRUE(folder_->renameNoReplace(FileName("a"), FileName("c")));
    EXPECT_THAT(folder_->list(), UnorderedElementsAre("b", "c"));
    EXPECT_THAT(folder_->list(), UnorderedElementsAre("b", "c")) << "as often as one likes";
    folder_->rename(FileName("b"), FileName("c"));
    EXPECT_EQ(readText(inside_ / "c"), "b");
    folder_->flush();
    folder_->remove(FileName("c"));
    EXPECT_THAT(folder_->list(), IsEmpty());
    EXPECT_EQ(failureToOpen("c", OpenMode::read), "No such file or directory");
    EXPECT_EQ(folder_->path(), inside_);
    EXPECT_EQ(folder_->status().kind, FileKind::directory);
}

TEST_F(LinuxFolderTest, FollowsNoLinkWhateverIsDone) {
    writeText(outside_ / "precious", "precious");
    std::filesystem::create_symlink("../precious", inside_ / "link");
    std::filesystem::create_symlink("../missing", inside_ / "dangling");
    std::filesystem::create_symlink("..", inside_ / "up");
    for (const char* name : {"link", "dangling", "up"}) {
        for (const OpenMode mode : {OpenMode::read, OpenMode::write, OpenMode::openOrCreate}) {
            EXPECT_EQ(failureToOpen(name, mode), "Too many levels of symbolic links") << name;
        }
        EXPECT_EQ(failureToOpen(name, OpenMode::createNew), "File exists") << name;
        EXPECT_EQ(folder_->status(FileName(name)).value().kind, FileKind::other) << name;
    }
    EXPECT_EQ(write("a", "a"), "");
    EXPECT_FALSE(folder_->renameNoReplace(FileName("a"), FileName("dangling")));
    folder_->rename(FileName("a"), FileName("link"));
    EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(inside_ / "link")));
    folder_->remove(FileName("up"));
    folder_->remove(FileName("dangling"));
    EXPECT_EQ(readText(outside_ / "precious"), "precious");
    EXPECT_FALSE(std::filesystem::exists(outside_ / "missing"));
}

TEST_F(LinuxFolderTest, StaysTheFolderThatItWasWhateverItsPathLeadsTo) {
    std::filesystem::rename(inside_, outside_ / "elsewhere");
    std::filesystem::create_directory(outside_ / "trap");
    std::filesystem::create_symlink("trap", inside_);
    EXPECT_EQ(write("a", "content"), "");
    EXPECT_EQ(readText(outside_ / "elsewhere/a"), "content");
    EXPECT_FALSE(std::filesystem::exists(outside_ / "trap/a"));
    std::filesystem::remove_all(outside_ / "elsewhere");
    EXPECT_EQ(write("b", "content"), "No such file or directory");
}

TEST_F(LinuxFolderTest, MayBeReachedByALinkAndMustBeAFolder) {
    std::filesystem::create_symlink("downloads", outside_ / "link");
    const std::unique_ptr<Folder> same = openLinuxFolder(outside_ / "link", ordinary_);
    EXPECT_TRUE(isSameFile(same->status(), folder_->status()));
    writeText(outside_ / "file", "");
    EXPECT_EQ(failureOf([&] { static_cast<void>(openLinuxFolder(outside_ / "file", ordinary_)); }), "Not a directory");
    EXPECT_EQ(failureOf([&] { static_cast<void>(openLinuxFolder(outside_ / "none", ordinary_)); }),
              "No such file or directory");
}

TEST_F(LinuxFolderTest, DoesNotWaitForAPipe) {
    ASSERT_EQ(::mkfifo((inside_ / "pipe").c_str(), 0600), 0);
    EXPECT_EQ(failureToOpen("pipe", OpenMode::write), "No such device or address");
    EXPECT_EQ(folder_->open(FileName("pipe"), OpenMode::read)->status().kind, FileKind::other);
    folder_->remove(FileName("pipe"));
}

TEST_F(LinuxFolderTest, MakesFilesWithTheirPermissionsUnderAnyUmask) {
    const mode_t before = ::umask(0777);
    const std::string failure =
        failureOf([&] { folder_->open(FileName("a"), OpenMode::createNew, 0640)->write(asBytes("x")); });
    ::umask(before);
    EXPECT_EQ(failure, "");
    EXPECT_EQ(folder_->status(FileName("a")).value().permissions, 0600U);
}

TEST_F(LinuxFolderTest, KnowsWhatNewFilesGetUnderAnyUmask) {
    for (const mode_t mask : {022U, 0U, 027U, 077U}) {
        const mode_t before = ::umask(mask);
        EXPECT_EQ(write("new", ""), "");
        const std::uint32_t ordinary = LinuxFileSystem().openFolder(inside_)->ordinaryPermissions();
        ::umask(before);
        EXPECT_EQ(ordinary, folder_->status(FileName("new")).value().permissions) << mask;
        folder_->open(FileName("new"), OpenMode::write)->setPermissions(0640);
        EXPECT_EQ(folder_->status(FileName("new")).value().permissions, 0640U);
        folder_->remove(FileName("new"));
    }
}

TEST_F(LinuxFolderTest, MovesAnOpenFileAndNoOther) {
    std::unique_ptr<File> file = folder_->open(FileName("a.partial"), OpenMode::createNew);
    file->write(asBytes("ours"));
    writeText(inside_ / "taken", "");
    EXPECT_FALSE(folder_->moveNoReplace(*file, FileName("a.partial"), FileName("taken")));
    EXPECT_EQ(failureOf([&] { static_cast<void>(folder_->moveNoReplace(*file, FileName("none"), FileName("a"))); }),
              "No such file or directory");
    EXPECT_TRUE(folder_->moveNoReplace(*file, FileName("a.partial"), FileName("a")));
    EXPECT_EQ(readText(inside_ / "a"), "ours");
    writeText(inside_ / "stranger", "theirs");
    EXPECT_EQ(failureOf([&] { static_cast<void>(folder_->moveNoReplace(*file, FileName("stranger"), FileName("b"))); }),
              "another program has replaced stranger");
    EXPECT_THAT(folder_->list(), UnorderedElementsAre("a", "stranger", "taken"));
}

TEST_F(LinuxFolderTest, KnowsItsOwnFiles) {
    EXPECT_EQ(write("a", "a"), "");
    EXPECT_TRUE(folder_->isOwn(folder_->status(FileName("a")).value()));
    std::filesystem::create_hard_link(inside_ / "a", outside_ / "second");
    EXPECT_FALSE(folder_->isOwn(folder_->status(FileName("a")).value())) << "it is another file's content too";
    std::filesystem::remove(outside_ / "second");
    EXPECT_TRUE(folder_->isOwn(folder_->status(FileName("a")).value()));
    FileStatus somebodys = folder_->status(FileName("a")).value();
    somebodys.owner += 1;
    EXPECT_FALSE(folder_->isOwn(somebodys));
}

TEST_F(LinuxFolderTest, SaysHowLongANameMayBeAndHowMuchRoomThereIs) {
    const std::size_t longest = folder_->longestName();
    EXPECT_EQ(write(std::string(longest, 'x'), ""), "");
    EXPECT_EQ(write(std::string(longest + 1, 'x'), ""), "File name too long");
    EXPECT_EQ(failureOf([&] { static_cast<void>(folder_->status(FileName(std::string(longest + 1, 'x')))); }),
              "File name too long");
    const std::filesystem::space_info space = std::filesystem::space(inside_);
    EXPECT_NEAR(static_cast<double>(folder_->freeBytes()), static_cast<double>(space.available),
                static_cast<double>(space.capacity) / 10);
}

/// From here on permissions hold for this process, also if it is root's.
void takeRightsOfRootAway() {
    __user_cap_header_struct header{.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
    std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> none{};
    if (::syscall(SYS_capset, &header, none.data()) != 0) {
        ::_exit(99);
    }
}

TEST_F(LinuxFolderTest, SaysWhyNoFileCanBeMade) {
    EXPECT_EQ(folder_->objectionToFiles(), std::error_code());
    std::filesystem::permissions(inside_, std::filesystem::perms::owner_read | std::filesystem::perms::owner_exec);
    const pid_t child = ::fork();
    if (child == 0) {
        takeRightsOfRootAway();
        ::_exit(folder_->objectionToFiles() == std::errc::permission_denied ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(LinuxFolderTest, CanBeUsedWhereItMayNotBeRead) {
    std::filesystem::permissions(inside_, std::filesystem::perms::owner_write | std::filesystem::perms::owner_exec);
    const pid_t child = ::fork();
    if (child == 0) {
        takeRightsOfRootAway();
        std::unique_ptr<Folder> unreadable;
        const std::string failure = failureOf([&] {
            unreadable = openLinuxFolder(inside_, ordinary_);
            unreadable->open(FileName("a"), OpenMode::createNew)->write(asBytes("content"));
            unreadable->flush();
        });
        const bool isRead = failureOf([&] { static_cast<void>(unreadable->list()); }) != "Permission denied";
        ::_exit(!failure.empty() ? 1 : isRead ? 2 : 0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    std::filesystem::permissions(inside_, std::filesystem::perms::owner_all);
    EXPECT_EQ(readText(inside_ / "a"), "content");
}

/// From here on this process has no openat2(): the call fails with this.
void takeOpenat2Away(int errorNumber) {
    sock_filter program[] = {
        {BPF_LD | BPF_W | BPF_ABS, 0, 0, offsetof(seccomp_data, nr)},
        {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, SYS_openat2},
        {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ERRNO | static_cast<unsigned int>(errorNumber)},
        {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW},
    };
    const sock_fprog filter{.len = std::size(program), .filter = program};
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0) {
        ::_exit(99);
    }
}

TEST_F(LinuxFolderTest, DoesAllThisOnAKernelWithoutOpenat2Too) {
    writeText(outside_ / "precious", "precious");
    std::filesystem::create_symlink("../precious", inside_ / "link");
    for (const int errorNumber : {ENOSYS, EPERM}) { // an old kernel; a container's filter
        const pid_t child = ::fork();
        if (child == 0) {
            takeOpenat2Away(errorNumber);
            const bool isGone = ::syscall(SYS_openat2, -1, "", nullptr, 0) == -1 && errno == errorNumber;
            const bool works = write("a", "content") == "" && write("a", "") == "File exists" &&
                               failureToOpen("link", OpenMode::write) == "Too many levels of symbolic links" &&
                               failureToOpen("link", OpenMode::openOrCreate) == "Too many levels of symbolic links" &&
                               failureToOpen("link", OpenMode::createNew) == "File exists";
            ::_exit(!isGone ? 98 : works ? 0 : 1);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), 0);
        EXPECT_EQ(readText(inside_ / "a"), "content");
        std::filesystem::remove(inside_ / "a");
    }
    EXPECT_EQ(readText(outside_ / "precious"), "precious");
}

} // namespace
} // namespace orlinth::platform
