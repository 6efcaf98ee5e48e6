#include "platform/linux/PassedFile.h"

#include "base/Bytes.h"
#include "fakes/TemporaryFolder.h"
#include "platform/linux/SealedMemory.h"

#include <gtest/gtest.h>

#include <array>
#include <fcntl.h>
#include <fstream>
#include <sys/mman.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace orlinth::platform {
namespace {

using namespace std::chrono_literals;

std::string read(const Descriptor& file, std::size_t maxBytes = 1 << 20, std::chrono::milliseconds patience = 60s) {
    return toText(readPassedFile(file, maxBytes, patience).reveal());
}

/// Why it is refused; "" if it is not.
std::string refusal(const Descriptor& file, std::size_t maxBytes = 100, std::chrono::milliseconds patience = 60s) {
    try {
        static_cast<void>(readPassedFile(file, maxBytes, patience));
    } catch (const SystemError& error) {
        return error.description();
    }
    return "";
}

struct Pipe {
    Pipe() {
        std::array<int, 2> ends{};
        EXPECT_EQ(0, ::pipe2(ends.data(), O_CLOEXEC));
        reader = Descriptor(ends[0]);
        writer = Descriptor(ends[1]);
    }
    Descriptor reader;
    Descriptor writer;
};

TEST(PassedFile, OfMemoryIsAllOfIt) {
    for (const std::string& text : {std::string(), std::string("a text"), std::string(100'000, 'x')}) {
        EXPECT_EQ(text, read(detail::sealedMemory(asBytes(text)), text.size()));
        const Descriptor open(::memfd_create("open", MFD_CLOEXEC));
        ASSERT_EQ(static_cast<ssize_t>(text.size()), ::write(open.get(), text.data(), text.size()));
        EXPECT_EQ(text, read(open, text.size())) << "from the beginning, wherever whoever wrote it has stopped";
    }
}

TEST(PassedFile, OnADiskIsAllOfItOnceAndAgain) {
    const fakes::TemporaryFolder folder;
    std::ofstream(folder.path() / "a") << "a text";
    const Descriptor file(::open((folder.path() / "a").c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ("a text", read(file));
    EXPECT_EQ("a text", read(file));
}

TEST(PassedFile, OfAPipeIsEverythingUntilItsEnd) {
    Pipe pipe;
    const std::string text(300'000, 'x'); // more than it holds at once
    std::thread source([&] {
        std::size_t written = 0;
        while (written < text.size()) {
            const ssize_t count = ::write(pipe.writer.get(), text.data() + written, text.size() - written);
            ASSERT_GT(count, 0);
            written += static_cast<std::size_t>(count);
        }
        pipe.writer.close();
    });
    EXPECT_EQ(text, read(pipe.reader));
    source.join();
    EXPECT_EQ(0, ::fcntl(pipe.reader.get(), F_GETFL) & O_NONBLOCK) << "whoever has passed it notices nothing";
}

TEST(PassedFile, OfAPipeThatHasNoEndIsGivenUp) {
    const Pipe pipe;
    ASSERT_EQ(1, ::write(pipe.writer.get(), "x", 1));
    EXPECT_EQ("Connection timed out", refusal(pipe.reader, 100, 20ms));
}

TEST(PassedFile, ThatIsTooLargeIsRefused) {
    EXPECT_EQ("", refusal(detail::sealedMemory(asBytes(std::string(100, 'x')))));
    EXPECT_EQ("Message too long", refusal(detail::sealedMemory(asBytes(std::string(101, 'x')))));
    Pipe pipe;
    ASSERT_EQ(101, ::write(pipe.writer.get(), std::string(101, 'x').data(), 101));
    EXPECT_EQ("Message too long", refusal(pipe.reader));
}

TEST(PassedFile, IsNeitherASocketNorADeviceNorAFolder) {
    const std::string expected = "neither a file nor a pipe was passed";
    EXPECT_EQ(expected, refusal(Descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))));
    EXPECT_EQ(expected, refusal(Descriptor(::open("/dev/zero", O_RDONLY | O_CLOEXEC))));
    EXPECT_EQ(expected, refusal(Descriptor(::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC))));
    EXPECT_EQ("Bad file descriptor", refusal(Descriptor()));
}

TEST(PassedFile, ThatMayNotBeReadIsRefused) {
    const fakes::TemporaryFolder folder;
    const Descriptor file(::open((folder.path() / "a").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    EXPECT_EQ("Bad file descriptor", refusal(file));
    const Pipe pipe;
    ASSERT_EQ(1, ::write(pipe.writer.get(), "x", 1));
    EXPECT_EQ(refusal(sameFile(pipe.reader.get()), 0, 20ms), "Message too long") << "the same file by another number";
}

} // namespace
} // namespace orlinth::platform
