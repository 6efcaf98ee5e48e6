#include "platform/linux/WorkerThreads.h"

#include <asio/post.hpp>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>
#include <thread>
#include <utility>

namespace orlinth::platform {
namespace {

/// How many threads this process has.
std::size_t threadsOfProcess() {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        static_cast<void>(entry);
        ++count;
    }
    return count;
}

/// The same, without those that have been joined just now: the system shows them for a moment longer.
std::size_t lastingThreadsOfProcess() {
    for (std::size_t count = threadsOfProcess();;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        const std::size_t now = threadsOfProcess();
        if (std::exchange(count, now) == now) {
            return now;
        }
    }
}

TEST(WorkerThreads, StartNoThreadBeforeTheFirstQueue) {
    const std::size_t before = lastingThreadsOfProcess();
    {
        const WorkerThreads workers;
        EXPECT_EQ(threadsOfProcess(), before);
    }
    EXPECT_EQ(lastingThreadsOfProcess(), before);
}

TEST(WorkerThreads, AreAsManyAsThereAreQueuesUpToABoundedNumber) {
    std::thread([] {}).join(); // with which a sanitizer starts one of its own
    WorkerThreads workers;
    const std::size_t before = lastingThreadsOfProcess();
    std::vector<Executor> queues;
    for (std::size_t i = 1; i <= 16; ++i) {
        queues.push_back(workers.makeSerialQueue());
        EXPECT_EQ(threadsOfProcess() - before, i);
    }
    for (int i = 0; i < 1000; ++i) {
        queues.push_back(workers.makeSerialQueue());
    }
    EXPECT_LE(threadsOfProcess() - before, 32U);
}

TEST(WorkerThreads, RunWhatIsOnOneQueueOneAtATimeAndInOrder) {
    std::vector<int> seen; // no lock: the queue is what keeps it whole
    std::atomic<int> inside = 0;
    bool overlapped = false;
    {
        WorkerThreads workers;
        const Executor queue = workers.makeSerialQueue();
        for (int i = 0; i < 2000; ++i) {
            asio::post(queue, [&, i] {
                overlapped = overlapped || ++inside != 1;
                seen.push_back(i);
                --inside;
            });
        }
    }
    EXPECT_FALSE(overlapped);
    ASSERT_EQ(seen.size(), 2000U) << "everything posted has run when the threads have been joined";
    EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
}

TEST(WorkerThreads, AQueueThatBlocksHoldsUpOnlyTheFewThatShareItsThread) {
    constexpr int queues = 160;
    std::atomic<int> ran = 0;
    std::promise<void> most;
    WorkerThreads workers;
    std::promise<void> release;
    const std::shared_future<void> released = release.get_future().share();
    std::promise<void> blocked;
    asio::post(workers.makeSerialQueue(), [&blocked, released] {
        blocked.set_value();
        released.wait();
    });
    blocked.get_future().wait();
    for (int i = 0; i < queues; ++i) {
        asio::post(workers.makeSerialQueue(), [&] {
            if (++ran == queues * 15 / 16) {
                most.set_value();
            }
        });
    }
    EXPECT_EQ(most.get_future().wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_LT(ran, queues) << "nothing was held up, so nothing was tested";
    release.set_value();
}

TEST(WorkerThreads, GiveQueuesToSeveralThreadsAtOnce) {
    std::atomic<int> ran = 0;
    {
        WorkerThreads workers;
        std::vector<std::thread> callers;
        for (int i = 0; i < 8; ++i) {
            callers.emplace_back([&workers, &ran] {
                for (int round = 0; round < 50; ++round) {
                    asio::post(workers.makeSerialQueue(), [&ran] { ++ran; });
                }
            });
        }
        for (std::thread& caller : callers) {
            caller.join();
        }
    }
    EXPECT_EQ(ran, 400);
}

/// Asks until somebody is late, or for long enough.
std::vector<LateQueue> lateWithin(WorkerThreads& workers, Seconds late, std::chrono::milliseconds patience) {
    const auto end = std::chrono::steady_clock::now() + patience;
    std::vector<LateQueue> found = workers.lateQueues(late);
    while (found.empty() && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        found = workers.lateQueues(late);
    }
    return found;
}

TEST(WorkerThreads, AThreadThatDoesNotAnswerIsNoticedAndSaysForWhatItIs) {
    using namespace std::chrono_literals;
    WorkerThreads workers;
    const Executor queue = workers.makeSerialQueue("busy");
    const Executor other = workers.makeSerialQueue("idle");
    EXPECT_TRUE(lateWithin(workers, 50ms, 200ms).empty());
    std::promise<void> release;
    asio::post(queue, [released = release.get_future().share()] { released.wait(); });
    const std::vector<LateQueue> late = lateWithin(workers, 50ms, 30s);
    ASSERT_EQ(late.size(), 1U);
    EXPECT_EQ(late[0].label, "busy");
    EXPECT_GE(late[0].silence, 50ms);
    EXPECT_EQ(late[0].thread, 1U);
    std::promise<void> releaseOther;
    asio::post(other, [released = releaseOther.get_future().share()] { released.wait(); });
    std::vector<LateQueue> both = late;
    for (const auto end = std::chrono::steady_clock::now() + 30s;
         both.size() < 2 && std::chrono::steady_clock::now() < end;) {
        both = lateWithin(workers, 50ms, 30s);
    }
    ASSERT_EQ(both.size(), 2U);
    EXPECT_EQ(both[0].thread, 1U);
    EXPECT_EQ(both[1].thread, 2U);
    release.set_value();
    releaseOther.set_value();
    std::promise<void> back;
    asio::post(queue, [&back] { back.set_value(); });
    back.get_future().wait();
    std::promise<void> otherBack;
    asio::post(other, [&otherBack] { otherBack.set_value(); });
    otherBack.get_future().wait();
    EXPECT_TRUE(workers.lateQueues(50ms).empty());
    EXPECT_TRUE(lateWithin(workers, 50ms, 200ms).empty());
}

TEST(WorkerThreads, AQueueWithAThreadOfItsOwnHoldsNobodyUpAndMayBlock) {
    using namespace std::chrono_literals;
    WorkerThreads workers;
    std::promise<void> release;
    const Executor alone = workers.makeThreadQueue("chores");
    asio::post(alone, [released = release.get_future().share()] { released.wait(); });
    constexpr int queues = 100;
    std::atomic<int> ran = 0;
    std::promise<void> all;
    for (int i = 0; i < queues; ++i) {
        asio::post(workers.makeSerialQueue("work"), [&] {
            if (++ran == queues) {
                all.set_value();
            }
        });
    }
    EXPECT_EQ(all.get_future().wait_for(30s), std::future_status::ready);
    EXPECT_TRUE(lateWithin(workers, 50ms, 200ms).empty());
    release.set_value();
}

TEST(WorkerThreads, WhatBlocksHoldsUpNeitherQueuesNorOthersThatBlock) {
    using namespace std::chrono_literals;
    WorkerThreads workers;
    std::promise<void> release;
    const std::shared_future<void> released = release.get_future().share();
    for (int i = 0; i < 31; ++i) {
        asio::post(workers.makeBlockingQueue(), [released] { released.wait(); });
    }
    constexpr int queues = 100;
    std::atomic<int> ran = 0;
    std::promise<void> all;
    const auto count = [&] {
        if (++ran == 2 * queues) {
            all.set_value();
        }
    };
    for (int i = 0; i < queues; ++i) {
        asio::post(workers.makeSerialQueue("work"), count);
        asio::post(workers.makeBlockingQueue(), count);
    }
    EXPECT_EQ(all.get_future().wait_for(30s), std::future_status::ready);
    EXPECT_TRUE(lateWithin(workers, 50ms, 200ms).empty()) << "a disk that takes its time is no thread that hangs";
    release.set_value();
}

TEST(WorkerThreads, WhatIsOnOneBlockingQueueRunsOneAtATimeAndInOrderOnABoundedNumberOfThreads) {
    std::vector<int> seen; // no lock: the queue is what keeps it whole
    WorkerThreads workers;
    std::thread([] {}).join(); // with which a sanitizer starts one of its own
    const std::size_t before = lastingThreadsOfProcess();
    const Executor queue = workers.makeBlockingQueue();
    for (int i = 0; i < 1000; ++i) {
        asio::post(workers.makeBlockingQueue(), [] {});
    }
    EXPECT_EQ(threadsOfProcess() - before, 32U);
    std::promise<void> end;
    for (int i = 0; i < 2000; ++i) {
        asio::post(queue, [&seen, i] { seen.push_back(i); });
    }
    asio::post(queue, [&end] { end.set_value(); });
    end.get_future().wait();
    ASSERT_EQ(seen.size(), 2000U);
    EXPECT_TRUE(std::ranges::is_sorted(seen));
}

} // namespace
} // namespace orlinth::platform
