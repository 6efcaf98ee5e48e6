#include "platform/linux/LinuxFolderWatch.h"

#include "fakes/TemporaryFolder.h"
#include "platform/SystemError.h"

#include <asio/io_context.hpp>
#include <gtest/gtest.h>

#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <poll.h>
#include <sys/resource.h>
#include <thread>

namespace orlinth::platform {
namespace {

using fakes::TemporaryFolder;
using fakes::writeText;
using SteadyClock = std::chrono::steady_clock;
using namespace std::chrono_literals;

/// Nothing here takes this long; it only keeps a broken test from hanging.
constexpr auto patience = 60s;

class LinuxFolderWatchTest : public testing::Test {
protected:
    void runUntil(const std::function<bool()>& isDone) {
        const auto end = SteadyClock::now() + patience;
        while (!isDone()) {
            ASSERT_LT(SteadyClock::now(), end) << "nothing happens any more";
            context.restart();
            context.poll();
            context.run_one_for(2ms);
        }
    }

    [[nodiscard]] std::unique_ptr<FolderWatch> count(const Path& path, int& counter) {
        return watcher.watch(path, context.get_executor(), [&counter] { ++counter; });
    }

    /// A watch of its own hears of this.
    void expectTold(const char* what, const std::function<void()>& action) {
        SCOPED_TRACE(what);
        int calls = 0;
        const auto watch = count(folder.path(), calls);
        action();
        runUntil([&] { return calls > 0; });
    }

    std::error_code failureOf(const Path& path) {
        try {
            static_cast<void>(watcher.watch(path, context.get_executor(), [] {}));
        } catch (const SystemError& error) {
            return error.code();
        }
        return {};
    }

    const TemporaryFolder folder;
    const TemporaryFolder other;
    asio::io_context context;
    LinuxFolderWatcher watcher;
};

TEST_F(LinuxFolderWatchTest, TellsOfEveryNameThatComesGoesOrIsReplaced) {
    expectTold("a new file", [&] { writeText(folder / "a", "1"); });
    expectTold("a new folder", [&] { std::filesystem::create_directory(folder / "sub"); });
    expectTold("a file that was written", [&] { writeText(folder / "a", "2"); });
    expectTold("a new name", [&] { std::filesystem::rename(folder / "a", folder / "b"); });
    writeText(other / "b", "3");
    expectTold("a name from elsewhere", [&] { std::filesystem::rename(other / "b", folder / "b"); });
    expectTold("a name that goes elsewhere", [&] { std::filesystem::rename(folder / "b", other / "b"); });
    expectTold("a link", [&] { std::filesystem::create_symlink("nowhere", folder / "link"); });
    expectTold("a link that goes", [&] { std::filesystem::remove(folder / "link"); });
    expectTold("a folder that goes", [&] { std::filesystem::remove(folder / "sub"); });
}

TEST_F(LinuxFolderWatchTest, TellsThatAFileThatCouldBeWrittenWasClosed) {
    writeText(folder / "lock", "");
    int file = ::open((folder / "lock").c_str(), O_WRONLY | O_CLOEXEC);
    expectTold("closing it", [&] { ::close(file); });
    file = ::open((folder / "lock").c_str(), O_RDWR | O_CLOEXEC);
    expectTold("closing one that could be read, too", [&] { ::close(file); });
}

TEST_F(LinuxFolderWatchTest, TellsAgainOfWhatComesAfterACall) {
    int calls = 0;
    const auto watch = count(folder.path(), calls);
    for (int round = 0; round < 20; ++round) {
        const int before = calls;
        writeText(folder / std::to_string(round), "");
        runUntil([&] { return calls > before; });
    }
}

TEST_F(LinuxFolderWatchTest, TellsOfManyChangesWithoutOneCallForEach) {
    int calls = 0;
    const auto watch = count(folder.path(), calls);
    for (int number = 0; number < 500; ++number) { // none is told of before they are all there: nothing runs
        writeText(folder / std::to_string(number), "");
    }
    runUntil([&] { return calls > 0; });
    EXPECT_LT(calls, 50);
}

TEST_F(LinuxFolderWatchTest, DoesNotTellOfWhatIsBelowAFolderInIt) {
    std::filesystem::create_directory(folder / "sub");
    int calls = 0;
    int below = 0;
    const auto watch = count(folder.path(), calls);
    const auto inner = count(folder / "sub", below);
    writeText(folder / "sub/a", "");
    runUntil([&] { return below > 0; });
    EXPECT_EQ(calls, 0);
    writeText(folder / "a", "");
    runUntil([&] { return calls > 0; });
}

TEST_F(LinuxFolderWatchTest, TellsOfOneFileWhateverBecomesOfIt) {
    const Path file = folder / "book";
    int calls = 0;
    const auto watch = watcher.watchFile(file, context.get_executor(), [&calls] { ++calls; });
    const auto expectCall = [&](const char* what, const std::function<void()>& action) {
        SCOPED_TRACE(what);
        const int before = calls;
        action();
        runUntil([&] { return calls > before; });
        context.restart();
        context.poll(); // what else there is to be told of this
    };
    for (int round = 0; round < 2; ++round) {
        expectCall("it comes", [&] { writeText(file, "1"); });
        expectCall("it is written in its place", [&] { writeText(file, "2"); });
        writeText(other / "new", "3");
        expectCall("another one takes its name", [&] { std::filesystem::rename(other / "new", file); });
        expectCall("that one is written", [&] { writeText(file, "4"); });
        expectCall("it goes elsewhere", [&] { std::filesystem::rename(file, other / "old"); });
        expectCall("it is back", [&] { std::filesystem::rename(other / "old", file); });
        expectCall("it is written again", [&] { writeText(file, "5"); });
        expectCall("it is removed", [&] { std::filesystem::remove(file); });
    }
}

TEST_F(LinuxFolderWatchTest, TellsNothingOfOtherFilesToWhoeverWatchesOne) {
    int calls = 0;
    int all = 0;
    const auto watch = watcher.watchFile(folder / "book", context.get_executor(), [&calls] { ++calls; });
    const auto wide = count(folder.path(), all);
    for (const char* name : {"other", "book.lock", "boo"}) {
        const int before = all;
        writeText(folder / name, "");
        runUntil([&] { return all > before; });
    }
    context.restart();
    context.poll();
    EXPECT_EQ(calls, 0);
    writeText(folder / "book", "");
    runUntil([&] { return calls > 0; });
}

TEST_F(LinuxFolderWatchTest, FindsTheFileAgainWhenItsFolderIsBack) {
    const Path inner = folder / "inner";
    std::filesystem::create_directory(inner);
    writeText(inner / "book", "1");
    int calls = 0;
    const auto watch = watcher.watchFile(inner / "book", context.get_executor(), [&calls] { ++calls; });
    std::filesystem::rename(inner, folder / "away");
    runUntil([&] { return calls > 0; });
    std::filesystem::rename(folder / "away", inner);
    const int before = calls;
    runUntil([&] { return calls > before; }); // it is looked for every two seconds
    const int found = calls;
    writeText(inner / "book", "2");
    runUntil([&] { return calls > found; });
}

TEST_F(LinuxFolderWatchTest, SaysWhyAFileThatIsThereCannotBeWatched) {
    std::filesystem::create_symlink("book", folder / "book"); // leads to itself
    std::error_code failure;
    try {
        static_cast<void>(watcher.watchFile(folder / "book", context.get_executor(), [] {}));
    } catch (const SystemError& error) {
        failure = error.code();
    }
    EXPECT_EQ(failure, std::errc::too_many_symbolic_link_levels);
    static_cast<void>(watcher.watchFile(folder / "missing", context.get_executor(), [] {}));
}

TEST_F(LinuxFolderWatchTest, LooksAgainAtAFileThatCannotBeWatchedForAWhile) {
    const Path real = other / "book";
    const Path file = folder / "book";
    int calls = 0;
    const auto watch = watcher.watchFile(file, context.get_executor(), [&calls] { ++calls; });
    std::filesystem::create_symlink("book", real); // leads to itself
    std::filesystem::create_symlink(real, file);
    runUntil([&] { return calls > 0; });
    std::filesystem::remove(real);
    writeText(real, "1");
    const int before = calls;
    runUntil([&] { return calls > before; }); // it is looked at every two seconds
    const int found = calls;
    writeText(real, "2");
    runUntil([&] { return calls > found; });
}

TEST_F(LinuxFolderWatchTest, FollowsALinkToTheFolder) {
    std::filesystem::create_directory_symlink(folder.path(), other / "link");
    int calls = 0;
    const auto watch = count(other / "link", calls);
    writeText(folder / "a", "");
    runUntil([&] { return calls > 0; });
}

TEST_F(LinuxFolderWatchTest, SaysWhyAFolderCannotBeWatched) {
    writeText(folder / "file", "");
    EXPECT_EQ(failureOf(folder / "missing"), std::errc::no_such_file_or_directory);
    EXPECT_EQ(failureOf(folder / "file"), std::errc::not_a_directory);
    EXPECT_EQ(failureOf(folder.path()), std::error_code());
}

TEST_F(LinuxFolderWatchTest, SaysThatTheSystemHasNoWatchesLeft) {
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{3, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    const std::error_code failure = failureOf(folder.path());
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(failure, std::errc::too_many_files_open);
    EXPECT_EQ(failureOf(folder.path()), std::error_code());
}

TEST_F(LinuxFolderWatchTest, SaysNothingAnyMoreOnceItHasEnded) {
    int calls = 0;
    int others = 0;
    asio::io_context elsewhere; // not run, so that what is posted there waits
    auto watch = watcher.watch(folder.path(), elsewhere.get_executor(), [&calls] { ++calls; });
    const auto kept = count(folder.path(), others);
    writeText(folder / "a", "");
    runUntil([&] { return others > 0; });
    watch.reset();
    elsewhere.poll();
    EXPECT_EQ(calls, 0);
}

TEST_F(LinuxFolderWatchTest, MayEndInItsOwnCall) {
    int calls = 0;
    std::unique_ptr<FolderWatch> watch;
    watch = watcher.watch(folder.path(), context.get_executor(), [&] {
        ++calls;
        watch.reset();
    });
    writeText(folder / "a", "");
    runUntil([&] { return calls > 0; });
    EXPECT_EQ(watch, nullptr);
    writeText(folder / "b", "");
    context.restart();
    context.poll();
    EXPECT_EQ(calls, 1);
}

TEST_F(LinuxFolderWatchTest, TellsThatTheFolderHasGoneAndWatchesItAgainWhenItIsBack) {
    const Path inner = folder / "inner";
    std::filesystem::create_directory(inner);
    int calls = 0;
    const auto watch = count(inner, calls);
    for (const bool isMoved : {false, true}) {
        SCOPED_TRACE(isMoved);
        int before = calls;
        if (isMoved) {
            std::filesystem::rename(inner, folder / "away"); // with what is in it
        } else {
            std::filesystem::remove(inner);
        }
        runUntil([&] { return calls > before; });
        before = calls;
        std::filesystem::create_directory(inner);
        runUntil([&] { return calls > before; });
        before = calls;
        writeText(inner / "a", "");
        runUntil([&] { return calls > before; });
    }
}

TEST_F(LinuxFolderWatchTest, LeavesNothingWaitingOnceItHasEnded) {
    const Path inner = folder / "inner";
    std::filesystem::create_directory(inner);
    int calls = 0;
    auto watch = count(inner, calls);
    std::filesystem::remove(inner); // so that it is looked for
    runUntil([&] { return calls > 0; });
    EXPECT_FALSE(context.stopped());
    watch.reset();
    context.restart();
    context.run_for(patience);
    EXPECT_TRUE(context.stopped());
}

TEST_F(LinuxFolderWatchTest, ProgramsThatAreStartedDoNotInheritIt) {
    const auto watch = watcher.watch(folder.path(), context.get_executor(), [] {});
    int watches = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone; // that of the look itself
        if (std::filesystem::read_symlink(entry.path(), gone) == "anon_inode:inotify") {
            EXPECT_EQ(::fcntl(std::stoi(entry.path().filename()), F_GETFD), FD_CLOEXEC);
            ++watches;
        }
    }
    EXPECT_EQ(watches, 1);
}

TEST_F(LinuxFolderWatchTest, LastsThroughChangesFromManyThreadsAndEndsAtAnyTime) {
    std::vector<std::thread> threads;
    for (int number = 0; number < 3; ++number) {
        threads.emplace_back([this, number] {
            for (int round = 0; round < 30; ++round) {
                writeText(folder / std::to_string(number), std::to_string(round));
            }
        });
    }
    int calls = 0;
    for (int round = 0; round < 30; ++round) {
        const auto watch = count(folder.path(), calls);
        context.restart();
        context.poll();
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

} // namespace
} // namespace orlinth::platform
