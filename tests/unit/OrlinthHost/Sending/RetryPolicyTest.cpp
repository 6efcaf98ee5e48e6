#include "OrlinthHost/Sending/RetryPolicy.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

namespace orlinth::host {
namespace {

using Outcome = RetryPolicy::Outcome;
using State = RetryPolicy::State;
using testing::ElementsAre;

RetryPolicy::Instant at(Seconds time) {
    return RetryPolicy::Instant(time);
}

/// One that pauses, since second 0, after so many failures in its turn.
RetryPolicy pausing(int failures = 1) {
    RetryPolicy policy;
    for (int i = 0; i < failures; ++i) {
        policy.pauseIsOver();
        policy.began();
        EXPECT_TRUE(policy.ended(Outcome::failed, at(0s)));
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
    std::vector<Seconds> pauses;
    for (int i = 0; i < 8; ++i) {
        policy.began();
        pauses.push_back(policy.ended(Outcome::failed, at(0s)).value_or(0s));
        EXPECT_EQ(policy.state(), State::pausing);
        EXPECT_FALSE(policy.mayBegin());
        policy.pauseIsOver();
        EXPECT_EQ(policy.state(), State::idle);
        EXPECT_TRUE(policy.mayBegin());
    }
    EXPECT_THAT(pauses, ElementsAre(5s, 15s, 60s, 300s, 900s, 3600s, 3600s, 3600s));
}

struct Row {
    const char* what;
    RetryPolicy before;
    Outcome outcome;
    State state;
    std::optional<Seconds> pause;
};

TEST(RetryPolicy, EndsAnAttemptAsItsStateAndOutcomeHaveIt) {
    const std::vector<Row> table{
        {"delivered", sending(), Outcome::delivered, State::idle, std::nullopt},
        {"answered", sending(), Outcome::answered, State::idle, std::nullopt},
        {"moved", sending(), Outcome::moved, State::pausing, 5s},
        {"failed", sending(), Outcome::failed, State::pausing, 5s},
        {"nothing", sending(), Outcome::nothing, State::idle, std::nullopt},
        {"delivered, with hope", hopeful(), Outcome::delivered, State::idle, std::nullopt},
        {"moved, with hope", hopeful(), Outcome::moved, State::idle, std::nullopt},
        {"failed, with hope", hopeful(), Outcome::failed, State::idle, std::nullopt},
        {"nothing, with hope", hopeful(), Outcome::nothing, State::idle, std::nullopt},
    };
    for (Row row : table) {
        EXPECT_EQ(row.before.ended(row.outcome, at(0s)), row.pause) << row.what;
        EXPECT_EQ(row.before.state(), row.state) << row.what;
    }
}

TEST(RetryPolicy, ForgetsFailuresWhenThePhoneWasThere) {
    for (const Outcome outcome : {Outcome::delivered, Outcome::answered}) {
        RetryPolicy policy = pausing(3);
        policy.pauseIsOver();
        policy.began();
        EXPECT_FALSE(policy.ended(outcome, at(0s)));
        policy.began();
        EXPECT_EQ(policy.ended(Outcome::failed, at(0s)), 5s);
    }
}

TEST(RetryPolicy, CountsABreakBehindWhichThePhoneHasMoreAsTheFirst) {
    RetryPolicy policy = pausing(3);
    policy.pauseIsOver();
    policy.began();
    EXPECT_EQ(policy.ended(Outcome::moved, at(0s)), 5s);
}

TEST(RetryPolicy, LetsOthersGoOnDuringAPauseAndBeginsNone) {
    RetryPolicy policy = sending();
    policy.began();
    EXPECT_EQ(policy.ended(Outcome::failed, at(0s)), 5s);
    EXPECT_EQ(policy.state(), State::pausing);
    EXPECT_FALSE(policy.ended(Outcome::delivered, at(1s)));
    EXPECT_EQ(policy.state(), State::pausing);
    policy.pauseIsOver();
    EXPECT_EQ(policy.state(), State::idle);
}

TEST(RetryPolicy, EndsAPauseWhenThereIsReasonToHope) {
    RetryPolicy policy = pausing(4);
    EXPECT_TRUE(policy.reasonToHope());
    EXPECT_EQ(policy.state(), State::idle);
    policy.began();
    EXPECT_EQ(policy.ended(Outcome::failed, at(0s)), 5s) << "what failed before does not count";
}

TEST(RetryPolicy, TriesAtOnceAfterAFailureWithHopeButNotTwice) {
    RetryPolicy policy = hopeful();
    EXPECT_FALSE(policy.ended(Outcome::failed, at(0s)));
    policy.began();
    EXPECT_FALSE(policy.reasonToHope());
    EXPECT_EQ(policy.ended(Outcome::failed, at(0s)), 5s);
}

TEST(RetryPolicy, TakesWhatIsHeardSoonAfterAFailureForTheAnswerToItsOwnPush) {
    RetryPolicy policy = pausing(2);
    EXPECT_TRUE(policy.heard(at(1s))) << "it may be there now";
    EXPECT_EQ(policy.state(), State::idle);
    policy.began();
    EXPECT_EQ(policy.ended(Outcome::failed, at(2s)), 60s) << "the third in a row";
    EXPECT_FALSE(policy.heard(at(3s))) << "once is enough";
    EXPECT_EQ(policy.state(), State::pausing);
}

TEST(RetryPolicy, BelievesAPhoneThatIsHeardOfLater) {
    RetryPolicy policy = pausing(5);
    EXPECT_TRUE(policy.heard(at(RetryPolicy::echoTime)));
    policy.began();
    EXPECT_EQ(policy.ended(Outcome::failed, at(100s)), 5s);
}

TEST(RetryPolicy, HearsOfAPhoneWhileItSends) {
    RetryPolicy policy = sending();
    EXPECT_FALSE(policy.heard(at(0s)));
    EXPECT_EQ(policy.state(), State::hopeful);
    EXPECT_FALSE(policy.ended(Outcome::failed, at(0s)));
    EXPECT_EQ(policy.state(), State::idle);
}

TEST(RetryPolicy, TriesAPhoneThatComesAndGoesOnceInTenMinutesAndCountsOn) {
    RetryPolicy policy = pausing(3);
    EXPECT_TRUE(policy.returned(at(100s)));
    EXPECT_EQ(policy.state(), State::idle);
    policy.began();
    EXPECT_FALSE(policy.returned(at(101s))) << "it is tried just now";
    EXPECT_EQ(policy.state(), State::sending) << "and not at once again";
    EXPECT_EQ(policy.ended(Outcome::failed, at(110s)), 300s) << "the fourth in a row";
    for (const Seconds time : {160s, 220s, 280s, 699s}) {
        EXPECT_FALSE(policy.returned(at(time)));
    }
    EXPECT_EQ(policy.state(), State::pausing);
    EXPECT_TRUE(policy.returned(at(700s)));
    policy.began();
    EXPECT_EQ(policy.ended(Outcome::moved, at(701s)), 5s);
    policy.pauseIsOver();
    EXPECT_FALSE(policy.returned(at(2000s))) << "nothing waits";
}

TEST(RetryPolicy, TriesAPhoneThatAnswersThePushThatItGotForItsReturn) {
    RetryPolicy policy = pausing(5);
    EXPECT_TRUE(policy.returned(at(1000s)));
    policy.began();
    EXPECT_EQ(policy.ended(Outcome::failed, at(1030s)), 3600s);
    EXPECT_TRUE(policy.heard(at(1040s)));
    policy.began();
    EXPECT_EQ(policy.ended(Outcome::failed, at(1050s)), 3600s);
    EXPECT_FALSE(policy.heard(at(1060s))) << "once is enough";
}

TEST(RetryPolicy, KeepsAPauseWhileOthersAreUnderWay) {
    for (const bool isHeard : {false, true}) {
        RetryPolicy policy = sending();
        policy.began();
        EXPECT_FALSE(policy.ended(Outcome::answered, at(0s)));
        EXPECT_EQ(policy.pause(at(0s)), 5s) << "what was in doubt is offered again after a pause";
        EXPECT_FALSE(isHeard ? policy.heard(at(1s)) : policy.reasonToHope());
        EXPECT_EQ(policy.state(), State::pausing);
        policy.pauseIsOver();
        EXPECT_EQ(policy.state(), State::sending);
        EXPECT_TRUE(policy.mayBegin());
    }
}

TEST(RetryPolicy, PausesWhereNothingCouldBegin) {
    RetryPolicy policy;
    EXPECT_EQ(policy.pause(at(0s)), 5s);
    EXPECT_FALSE(policy.mayBegin());
    EXPECT_EQ(policy.pause(at(5s)), 15s);
}

} // namespace
} // namespace orlinth::host
