#include "platform/FileChangeCheck.h"

#include "fakes/TemporaryFolder.h"
#include "fakes/VirtualClock.h"
#include "platform/SystemError.h"
#include "platform/linux/LinuxFileSystem.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

namespace orlinth::platform {
namespace {

using Answer = FileChangeCheck::Answer;

class FileChangeCheckTest : public testing::Test {
protected:
    /// Writes the file, as if that had been so many seconds ago.
    void write(const std::string& content, int secondsAgo) {
        std::ofstream(file_) << content;
        const EpochMilliseconds now = clock_.epochMilliseconds();
        std::filesystem::last_write_time(file_,
                                         std::chrono::file_clock::from_sys(now - std::chrono::seconds(secondsAgo)));
    }

    Answer look() { return check_.look(files_, clock_, file_); }

    asio::io_context context_;
    fakes::VirtualClock clock_{context_};
    fakes::TemporaryFolder folder_;
    LinuxFileSystem files_;
    Path file_ = folder_.path() / "file";
    FileChangeCheck check_;
};

TEST_F(FileChangeCheckTest, IsSureOfAnOldFileAtTheSecondLook) {
    write("a", 60);
    EXPECT_EQ(Answer::different, look()) << "it was not known";
    EXPECT_EQ(Answer::same, look());
}

TEST_F(FileChangeCheckTest, IsNotSureOfAFileThatWasChangedAMomentAgo) {
    write("a", 0);
    EXPECT_EQ(Answer::different, look());
    EXPECT_EQ(Answer::maybeSame, look());
    EXPECT_EQ(Answer::maybeSame, look()) << "no time has passed";
}

TEST_F(FileChangeCheckTest, SeesAChangeOfTheTimeAlone) {
    write("a", 60);
    static_cast<void>(look());
    write("b", 59);
    EXPECT_EQ(Answer::different, look());
    EXPECT_EQ(Answer::same, look());
}

TEST_F(FileChangeCheckTest, SeesAnotherFileInItsPlace) {
    write("a", 60);
    static_cast<void>(look());
    const Path other = folder_.path() / "other";
    std::filesystem::copy_file(file_, other);
    std::filesystem::last_write_time(other, std::filesystem::last_write_time(file_));
    std::filesystem::rename(other, file_);
    EXPECT_EQ(Answer::different, look());
}

TEST_F(FileChangeCheckTest, SeesThatAFileComesAndGoes) {
    EXPECT_EQ(Answer::maybeSame, look()) << "nothing is certain before the first look";
    EXPECT_EQ(Answer::same, look());
    write("a", 60);
    EXPECT_EQ(Answer::different, look());
    std::filesystem::remove(file_);
    EXPECT_EQ(Answer::different, look());
    EXPECT_EQ(Answer::same, look());
}

TEST_F(FileChangeCheckTest, IsNotSureAfterADoubt) {
    write("a", 60);
    static_cast<void>(look());
    check_.doubt();
    EXPECT_EQ(Answer::maybeSame, look());
    EXPECT_EQ(Answer::same, look());
}

TEST_F(FileChangeCheckTest, ForgetsALookThatFailed) {
    write("a", 60);
    static_cast<void>(look());
    EXPECT_THROW(static_cast<void>(check_.look(files_, clock_, folder_.path() / std::string(300, 'n'))), SystemError);
    EXPECT_EQ(Answer::same, look());
}

} // namespace
} // namespace orlinth::platform
