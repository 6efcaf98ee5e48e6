#include "platform/linux/Descriptor.h"

#include "platform/linux/DescriptorPassing.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>

namespace orlinth::platform::detail {
namespace {

bool isOpen(int number) {
    return ::fcntl(number, F_GETFD) != -1;
}

Descriptor newFile() {
    return Descriptor::require(::open("/dev/null", O_RDONLY | O_CLOEXEC));
}

struct Pair {
    Pair() {
        std::array<int, 2> ends{};
        checked([&] { return ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()); });
        here = Descriptor(ends[0]);
        there = Descriptor(ends[1]);
    }

    Descriptor here;
    Descriptor there;
};

ino_t inodeOf(int number) {
    struct stat status{};
    checked([&] { return ::fstat(number, &status); });
    return status.st_ino;
}

/// One byte with these descriptors beside it.
void sendAll(int socket, const std::vector<int>& numbers) {
    char mark = 0;
    iovec data{.iov_base = &mark, .iov_len = 1};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(8 * sizeof(int))> control{};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = CMSG_SPACE(numbers.size() * sizeof(int));
    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(numbers.size() * sizeof(int));
    std::memcpy(CMSG_DATA(header), numbers.data(), numbers.size() * sizeof(int));
    checked([&] { return ::sendmsg(socket, &message, 0); });
}

/// How many descriptors this process has.
std::size_t countOpen() {
    std::size_t count = 0;
    for (int number = 0; number < 1024; ++number) {
        count += isOpen(number) ? 1 : 0;
    }
    return count;
}

TEST(Descriptor, ClosesAtTheEnd) {
    int number = -1;
    {
        const Descriptor file = newFile();
        number = file.get();
        EXPECT_TRUE(file.isOpen());
        EXPECT_TRUE(isOpen(number));
    }
    EXPECT_FALSE(isOpen(number));
}

TEST(Descriptor, ClosesEarlyOnce) {
    Descriptor file = newFile();
    const int number = file.get();
    file.close();
    EXPECT_FALSE(isOpen(number));
    EXPECT_FALSE(file.isOpen());
    const Descriptor next(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, number));
    ASSERT_EQ(next.get(), number);
    file.close();
    EXPECT_TRUE(isOpen(number)) << "it is another's by now";
}

TEST(Descriptor, MovesAndClosesWhatItHadBefore) {
    Descriptor first = newFile();
    Descriptor second = newFile();
    const int one = first.get();
    const int two = second.get();
    first = std::move(second);
    EXPECT_EQ(first.get(), two);
    EXPECT_FALSE(isOpen(one));
    EXPECT_TRUE(isOpen(two));
    Descriptor& itself = first;
    first = std::move(itself);
    EXPECT_EQ(first.get(), two);
    EXPECT_TRUE(isOpen(two));
}

TEST(Descriptor, GivesItsNumberAway) {
    Descriptor file = newFile();
    const int number = file.release();
    EXPECT_FALSE(file.isOpen());
    EXPECT_TRUE(isOpen(number));
    ::close(number);
}

TEST(Descriptor, LeavesTheErrorOfTheCallBefore) {
    Descriptor file = newFile();
    const int number = file.get();
    ::close(number); // so that closing it fails
    errno = ENOENT;
    file.close();
    EXPECT_EQ(errno, ENOENT);
}

TEST(Descriptor, SaysWhyThereIsNone) {
    try {
        static_cast<void>(Descriptor::require(::open("/nowhere", O_RDONLY | O_CLOEXEC)));
        FAIL() << "there is no such file";
    } catch (const SystemError& error) {
        EXPECT_EQ(error.code(), std::errc::no_such_file_or_directory);
    }
}

TEST(DescriptorPassing, GivesTheSameFileWhichChildrenDoNotInherit) {
    const Pair pair;
    const Descriptor file = newFile();
    EXPECT_TRUE(passDescriptor(pair.here.get(), file.get()));
    const std::optional<Descriptor> taken = takeDescriptor(pair.there.get());
    ASSERT_TRUE(taken);
    EXPECT_NE(taken->get(), file.get());
    EXPECT_EQ(inodeOf(taken->get()), inodeOf(file.get()));
    EXPECT_EQ(::fcntl(taken->get(), F_GETFD), FD_CLOEXEC);
}

TEST(DescriptorPassing, WaitsNeitherForWhatHasNotComeNorForRoom) {
    const Pair pair;
    EXPECT_FALSE(takeDescriptor(pair.there.get()));
    const Descriptor file = newFile();
    bool isTaken = true;
    for (int count = 0; isTaken && count < 100'000; ++count) {
        isTaken = passDescriptor(pair.here.get(), file.get());
    }
    EXPECT_FALSE(isTaken);
    EXPECT_TRUE(takeDescriptor(pair.there.get()));
}

TEST(DescriptorPassing, LeavesNothingOpenOfWhatWasNotAskedFor) {
    const Pair pair;
    const Descriptor file = newFile();
    const std::size_t before = countOpen();
    for (const std::size_t count : {std::size_t{2}, std::size_t{5}}) {
        sendAll(pair.here.get(), std::vector<int>(count, file.get()));
        EXPECT_THROW(static_cast<void>(takeDescriptor(pair.there.get())), SystemError);
        EXPECT_EQ(countOpen(), before) << count;
    }
    ASSERT_EQ(::send(pair.here.get(), "x", 1, 0), 1);
    EXPECT_THROW(static_cast<void>(takeDescriptor(pair.there.get())), SystemError);
}

TEST(DescriptorPassing, SaysThatTheOtherSideHasEndedOrTheFileIsNone) {
    Pair pair;
    EXPECT_THROW(static_cast<void>(passDescriptor(pair.here.get(), -1)), SystemError);
    pair.there.close();
    EXPECT_THROW(static_cast<void>(takeDescriptor(pair.here.get())), SystemError);
    const Descriptor file = newFile();
    EXPECT_THROW(static_cast<void>(passDescriptor(pair.here.get(), file.get())), SystemError);
}

} // namespace
} // namespace orlinth::platform::detail
