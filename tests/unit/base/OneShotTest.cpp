#include "base/OneShot.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

namespace orlinth {
namespace {

TEST(OneShot, KeepsTheFirstValueAndDropsLaterOnes) {
    OneShot<int> result;
    EXPECT_FALSE(result.isResolved());
    EXPECT_TRUE(result.resolve(1));
    EXPECT_TRUE(result.isResolved());
    EXPECT_FALSE(result.resolve(2));
    EXPECT_FALSE(result.fail(std::make_exception_ptr(std::runtime_error("late"))));
    EXPECT_EQ(result.take(), 1);
}

TEST(OneShot, ThrowsTheErrorThatCameFirst) {
    OneShot<int> result;
    EXPECT_TRUE(result.fail(std::make_exception_ptr(std::runtime_error("early"))));
    EXPECT_FALSE(result.resolve(1));
    try {
        static_cast<void>(result.take());
        FAIL() << "no error";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "early");
    }
}

TEST(OneShot, CarriesValuesThatCannotBeCopied) {
    OneShot<std::unique_ptr<int>> result;
    EXPECT_TRUE(result.resolve(std::make_unique<int>(7)));
    EXPECT_EQ(*result.take(), 7);
}

TEST(OneShot, LetsExactlyOneOfManyThreadsWin) {
    for (int round = 0; round < 50; ++round) {
        OneShot<int> result;
        std::atomic<int> wins = 0;
        std::atomic<int> winner = -1;
        std::vector<std::jthread> threads;
        for (int i = 0; i < 8; ++i) {
            threads.emplace_back([&, i] {
                const bool won =
                    i % 2 == 0 ? result.resolve(i) : result.fail(std::make_exception_ptr(std::runtime_error("lost")));
                if (won) {
                    ++wins;
                    winner = i;
                }
            });
        }
        threads.clear();
        ASSERT_EQ(wins, 1);
        if (winner % 2 == 0) {
            EXPECT_EQ(result.take(), winner);
        } else {
            EXPECT_THROW(static_cast<void>(result.take()), std::runtime_error);
        }
    }
}

} // namespace
} // namespace orlinth
