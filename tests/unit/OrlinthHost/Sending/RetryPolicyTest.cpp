#include "OrlinthHost/Sending/RetryPolicy.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

namespace orlinth::host {
namespace {

using Outcome = RetryPolicy::Outcome;
using State = RetryPolicy::State;
using testing::ElementsAre;

RetryPolicy::Instant at(double seconds) {
    return RetryPolicy::Instant(seconds);
}

/// One that pauses, since second 0, after so many failures in its turn.
RetryPolicy pausing(int failures = 1) {
    RetryPolicy policy;
    for (int i = 0; i < failures; ++i) {
        policy.pauseIsOver();
        policy.began();
        EXPECT_TRUE(policy.ended(Outcome::failed, at(0)));
    }
    return policy;
}
RetryPolicy sending() {
    RetryPolicy policy;
    policy.began();
    return policy;
}
RetryPolicy hopeful() {
    RetryPolicy policy = sending();
    EXPECT_FALSE(policy.reasonToHope()) << "something is under way";
    return policy;
}

TEST(RetryPolicy, PausesLongerAfterEachFailure) {
    RetryPolicy policy;
    std::vector<double> pauses;
    for (int i = 0; i < 8; ++i) {
        policy.began();
        pauses.push_back(policy.ended(Outcome::failed, at(0)).value_or(0));
        EXPECT_EQ(policy.state(), State::pausing);
        EXPECT_FALSE(policy.mayBegin());
        policy.pauseIsOver();
        EXPECT_EQ(policy.state(), State::idle);
        EXPECT_TRUE(policy.mayBegin());
    }
    EXPECT_THAT(pauses, ElementsAre(5, 15, 60, 300, 900, 3600, 3600, 3600));
}

struct Row {
    const char* what;
    RetryPolicy before;
    Outcome outcome;
    State state;
    std::optional<double> pause;
};

TEST(RetryPolicy, EndsAnAttemptAsItsStateAndOutcomeHaveIt) {
    const std::vector<Row> table{
        {"delivered", sending(), Outcome::delivered, State::idle, std::nullopt},
        {"answered", sending(), Outcome::answered, State::idle, std::nullopt},
        {"moved", sending(), Outcome::moved, State::pausing, 5},
        {"failed", sending(), Outcome::failed, State::pausing, 5},
        {"nothing", sending(), Outcome::nothing, State::idle, std::nullopt},
        {"delivered, with hope", hopeful(), Outcome::delivered, State::idle, std::nullopt},
        {"moved, with hope", hopeful(), Outcome::moved, State::idle, std::nullopt},
        {"failed, with hope", hopeful(), Outcome::failed, State::idle, std::nullopt},
        {"nothing, with hope", hopeful(), Outcome::nothing, State::idle, std::nullopt},
    };
    for (Row row : table) {
        EXPECT_EQ(row.before.ended(row.outcome, at(0)), row.pause) << row.what;
        EXPECT_EQ(row.before.state(), row.state) << row.what;
    }
}

TEST(RetryPolicy, ForgetsFailuresWhenThePhoneWasThere) {
    for (const Outcome outcome : {Outcome::delivered, Outcome::answered}) {
        RetryPolicy policy = pausing(3);
        policy.pauseIsOver();
        policy.began();
        EXPECT_FALSE(policy.ended(outcome, at(0)));
        policy.began();
        EXPECT_EQ(policy.ended(Outcome::failed, at(0)), 5);
    }
}

TEST(RetryPolicy, CountsABreakBehindWhichThePhoneHasMoreAsTheFirst) {
    RetryPolicy policy = pausing(3);
    policy.pauseIsOver();
    policy.began();
    EXPECT_EQ(policy.ended(Outcome::moved, at(0)), 5);
}

TEST(RetryPolicy, LetsOthersGoOnDuringAPauseAndBeginsNone) {
    RetryPolicy policy = sending();
    policy.began();
    EXPECT_EQ(policy.ended(Outcome::failed, at(0)), 5);
    EXPECT_EQ(policy.state(), State::pausing);
    EXPECT_FALSE(policy.ended(Outcome::delivered, at(1)));
    EXPECT_EQ(policy.state(), State::pausing);
    policy.pauseIsOver();
    EXPECT_EQ(policy.state(), State::idle);
}

TEST(RetryPolicy, EndsAPauseWhenThereIsReasonToHope) {
    RetryPolicy policy = pausing(4);
    EXPECT_TRUE(policy.reasonToHope());
    EXPECT_EQ(policy.state(), State::idle);
    policy.began();
    EXPECT_EQ(policy.ended(Outcome::failed, at(0)), 5) << "what failed before does not count";
}

TEST(RetryPolicy, TriesAtOnceAfterAFailureWithHopeButNotTwice) {
    RetryPolicy policy = hopeful();
    EXPECT_FALSE(policy.ended(Outcome::failed, at(0)));
    policy.began();
    EXPECT_FALSE(policy.reasonToHope());
    EXPECT_EQ(policy.ended(Outcome::failed, at(0)), 5);
}

TEST(RetryPolicy, TakesWhatIsHeardSoonAfterAFailureForTheAnswerToItsOwnPush) {
    RetryPolicy policy = pausing(2);
    EXPECT_TRUE(policy.heard(at(1))) << "it may be there now";
    EXPECT_EQ(policy.state(), State::idle);
    policy.began();
    EXPECT_EQ(policy.ended(Outcome::failed, at(2)), 60) << "the third in a row";
    EXPECT_FALSE(policy.heard(at(3))) << "once is enough";
    EXPECT_EQ(policy.state(), State::pausing);
}

TEST(RetryPolicy, BelievesAPhoneThatIsHeardOfLater) {
    RetryPolicy policy = pausing(5);
    EXPECT_TRUE(policy.heard(at(RetryPolicy::echoSeconds)));
    policy.began();
    EXPECT_EQ(policy.ended(Outcome::failed, at(100)), 5);
}

TEST(RetryPolicy, HearsOfAPhoneWhileItSends) {
    RetryPolicy policy = sending();
    EXPECT_FALSE(policy.heard(at(0)));
    EXPECT_EQ(policy.state(), State::hopeful);
    EXPECT_FALSE(policy.ended(Outcome::failed, at(0)));
    EXPECT_EQ(policy.state(), State::idle);
}

TEST(RetryPolicy, KeepsAPauseWhileOthersAreUnderWay) {
    for (const bool isHeard : {false, true}) {
        RetryPolicy policy = sending();
        policy.began();
        EXPECT_FALSE(policy.ended(Outcome::answered, at(0)));
        EXPECT_EQ(policy.pause(at(0)), 5) << "what was in doubt is offered again after a pause";
        EXPECT_FALSE(isHeard ? policy.heard(at(1)) : policy.reasonToHope());
        EXPECT_EQ(policy.state(), State::pausing);
        policy.pauseIsOver();
        EXPECT_EQ(policy.state(), State::sending);
        EXPECT_TRUE(policy.mayBegin());
    }
}

TEST(RetryPolicy, PausesWhereNothingCouldBegin) {
    RetryPolicy policy;
    EXPECT_EQ(policy.pause(at(0)), 5);
    EXPECT_FALSE(policy.mayBegin());
    EXPECT_EQ(policy.pause(at(5)), 15);
}

} // namespace
} // namespace orlinth::host
