#include "OrlinthHost/LineLimit.h"

#include "fakes/VirtualClock.h"

#include <gtest/gtest.h>

#include <vector>

namespace orlinth::host {
namespace {

class LineLimitTest : public testing::Test {
protected:
    /// So many failures now; returns how many of them are told.
    int failures(int count) {
        int told = 0;
        for (int i = 0; i < count; ++i) {
            told += limit_.admits() ? 1 : 0;
        }
        return told;
    }

    /// Lets the minute end that is under way.
    void letMinutePass() {
        const double before = clock_.elapsed();
        EXPECT_TRUE(clock_.advanceToNextAlarm());
        context_.restart();
        context_.run();
        EXPECT_EQ(60, clock_.elapsed() - before);
    }

    asio::io_context context_;
    fakes::VirtualClock clock_{context_};
    std::vector<std::int64_t> more_; ///< what was told of those that were not told one by one
    LineLimit limit_{clock_, context_.get_executor(), 5, [this](std::int64_t untold) { more_.push_back(untold); }};
};

TEST_F(LineLimitTest, TellsFiveAndCountsTheOthersOfAMinute) {
    EXPECT_EQ(5, failures(1000));
    EXPECT_TRUE(more_.empty());
    letMinutePass();
    EXPECT_EQ((std::vector<std::int64_t>{995}), more_);
}

TEST_F(LineLimitTest, OnlyCountsInTheMinuteAfterOneWithMoreThanFive) {
    failures(6);
    letMinutePass();
    EXPECT_EQ(0, failures(3));
    letMinutePass();
    EXPECT_EQ((std::vector<std::int64_t>{1, 3}), more_);
}

TEST_F(LineLimitTest, TellsOneByOneAgainAfterAQuietMinute) {
    failures(6);
    letMinutePass();
    letMinutePass();
    EXPECT_EQ(0U, clock_.pendingAlarms());
    EXPECT_EQ(5, failures(6));
    limit_.finish();
    EXPECT_EQ((std::vector<std::int64_t>{1, 1}), more_);
}

TEST_F(LineLimitTest, SaysNothingMoreAfterAMinuteInWhichAllWereTold) {
    EXPECT_EQ(5, failures(5));
    letMinutePass();
    EXPECT_TRUE(more_.empty());
    EXPECT_EQ(0U, clock_.pendingAlarms());
}

TEST_F(LineLimitTest, TellsAtTheEndOfThoseThatWereNotTold) {
    failures(7);
    limit_.finish();
    EXPECT_EQ((std::vector<std::int64_t>{2}), more_);
    EXPECT_EQ(0U, clock_.pendingAlarms());
}

} // namespace
} // namespace orlinth::host
