#include "platform/linux/DescriptorWait.h"

#include "fakes/CancelMidway.h"
#include "fakes/RunTask.h"
#include "fakes/TemporaryFolder.h"

#include <asio/post.hpp>
#include <asio/use_awaitable.hpp>
#include <gtest/gtest.h>

#include <array>
#include <fcntl.h>
#include <fstream>
#include <sys/epoll.h>
#include <unistd.h>

namespace orlinth::platform {
namespace {

struct DescriptorWaitTest : testing::Test {
    DescriptorWaitTest() {
        if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
            throw std::runtime_error("no pipe");
        }
    }
    DescriptorWaitTest(const DescriptorWaitTest&) = delete;
    DescriptorWaitTest& operator=(const DescriptorWaitTest&) = delete;
    ~DescriptorWaitTest() override {
        ::close(ends[0]);
        closeWriter();
    }

    void write() const { EXPECT_EQ(::write(ends[1], "x", 1), 1); }
    void closeWriter() {
        if (ends[1] != -1) {
            ::close(std::exchange(ends[1], -1));
        }
    }
    Task<> await() {
        co_await untilReadable(ends[0]);
        isReadable = true;
    }
    /// Begins to wait, and finds nothing yet.
    void start() {
        spawn(context.get_executor(), await(), [](const std::exception_ptr& error) { EXPECT_FALSE(error); });
        context.poll();
        EXPECT_FALSE(isReadable);
    }
    void runToTheEnd() {
        context.restart();
        context.run_for(std::chrono::seconds(30));
        EXPECT_TRUE(context.stopped());
    }

    asio::io_context context;
    std::array<int, 2> ends{-1, -1};
    bool isReadable = false;
};

TEST_F(DescriptorWaitTest, ReturnsAtOnceIfThereIsSomethingToRead) {
    write();
    fakes::runTask(context, await());
    EXPECT_TRUE(isReadable);
}

TEST_F(DescriptorWaitTest, WaitsForWhatIsWrittenLater) {
    start();
    write();
    runToTheEnd();
    EXPECT_TRUE(isReadable);
    char byte = 0;
    EXPECT_EQ(::read(ends[0], &byte, 1), 1);
}

TEST_F(DescriptorWaitTest, WaitsForTheEnd) {
    start();
    closeWriter();
    runToTheEnd();
    EXPECT_TRUE(isReadable);
}

TEST_F(DescriptorWaitTest, LeavesTheDescriptorAsItWasForOthersWhoHaveIt) {
    start();
    EXPECT_EQ(::fcntl(ends[0], F_GETFL) & O_NONBLOCK, 0);
    write();
    runToTheEnd();
    EXPECT_EQ(::fcntl(ends[0], F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(DescriptorWaitTest, TellsOfNewsOnlyAlthoughWhatCameBeforeWasNotRead) {
    DescriptorWatch watch(context.get_executor(), ends[0], EPOLLIN | EPOLLET);
    write();
    fakes::runTask(context, watch.wait());
    const auto onEnd = [this](const std::exception_ptr& error) { isReadable = error == nullptr; };
    spawn(context.get_executor(), watch.wait(), onEnd);
    context.restart();
    context.poll();
    EXPECT_FALSE(isReadable) << "that was told";
    write();
    runToTheEnd();
    EXPECT_TRUE(isReadable);
}

TEST_F(DescriptorWaitTest, EndsAWaitWhenItIsClosed) {
    DescriptorWatch watch(context.get_executor(), ends[0], EPOLLIN);
    std::exception_ptr failure;
    spawn(context.get_executor(), watch.wait(), [&failure](const std::exception_ptr& error) { failure = error; });
    context.poll();
    watch.close();
    runToTheEnd();
    EXPECT_TRUE(fakes::isCancelled(failure));
}

TEST_F(DescriptorWaitTest, CanBeCancelled) {
    EXPECT_TRUE(fakes::isCancelled(fakes::cancelMidway(context, await())));
    EXPECT_FALSE(isReadable);
}

TEST_F(DescriptorWaitTest, DoesNotWaitForAFileOrForADescriptorThatIsNone) {
    const fakes::TemporaryFolder folder;
    const std::filesystem::path path = folder / "empty";
    std::ofstream(path).close();
    const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(file, 0);
    fakes::runTask(context, untilReadable(file));
    ::close(file);
    fakes::runTask(context, untilReadable(file)); // which is open no more
}

} // namespace
} // namespace orlinth::platform
