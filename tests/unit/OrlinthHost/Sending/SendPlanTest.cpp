#include "OrlinthHost/Sending/SendPlan.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orlinth::host {
namespace {

using Outcome = SendPlan::Outcome;
using testing::ElementsAre;

constexpr std::int64_t small = 1000;

/// Begins what may begin for a phone; the files, in the order in which they were begun.
std::vector<std::size_t> beginAll(SendPlan& plan, std::vector<SendPlan::Id>& ids, std::size_t phone = 0) {
    std::vector<std::size_t> files;
    while (plan.nextFor(phone)) {
        const SendPlan::Id id = plan.begin(phone);
        ids.push_back(id);
        files.push_back(plan.at(id).file);
    }
    return files;
}

Outcome deliver(SendPlan& plan, SendPlan::Id id) {
    return plan.end(id, SendVerdict::delivered, AttemptStage::farewell);
}

TEST(SendPlan, BeginsWithOneFileAndAddsAnotherForEachThatIsTaken) {
    SendPlan plan(std::vector<std::int64_t>(20, small), 1);
    std::vector<SendPlan::Id> ids;
    EXPECT_THAT(beginAll(plan, ids), ElementsAre(0));
    EXPECT_EQ(deliver(plan, ids[0]), Outcome::delivered);
    EXPECT_THAT(beginAll(plan, ids), ElementsAre(1, 2));
    deliver(plan, ids[1]);
    EXPECT_THAT(beginAll(plan, ids), ElementsAre(3, 4));
    EXPECT_EQ(plan.waiting(), 15U);
}

TEST(SendPlan, SendsLargeFilesOneAfterTheOther) {
    SendPlan plan({PhoneLanes::enoughBytes, PhoneLanes::enoughBytes, PhoneLanes::enoughBytes}, 1);
    std::vector<SendPlan::Id> ids;
    for (std::size_t file = 0; file < 3; ++file) {
        EXPECT_THAT(beginAll(plan, ids), ElementsAre(file));
        deliver(plan, ids.back());
    }
    EXPECT_TRUE(plan.isIdle());
    EXPECT_EQ(plan.waiting(), 0U);
}

TEST(SendPlan, ServesThePhonesSideBySide) {
    SendPlan plan({small, small}, 2);
    std::vector<SendPlan::Id> first;
    std::vector<SendPlan::Id> second;
    EXPECT_THAT(beginAll(plan, first, 0), ElementsAre(0));
    EXPECT_THAT(beginAll(plan, second, 1), ElementsAre(0));
    EXPECT_FALSE(plan.at(first[0]).hadCompany) << "another phone's connection is none";
    EXPECT_EQ(plan.end(first[0], SendVerdict::tryAgain, AttemptStage::connecting), Outcome::failed);
    deliver(plan, second[0]);
    EXPECT_THAT(beginAll(plan, second, 1), ElementsAre(1));
}

TEST(SendPlan, HasOneLeaderForEachPhone) {
    SendPlan plan(std::vector<std::int64_t>(10, small), 1);
    std::vector<SendPlan::Id> ids;
    beginAll(plan, ids);
    EXPECT_TRUE(plan.at(ids[0]).isLeader);
    deliver(plan, ids[0]);
    beginAll(plan, ids);
    EXPECT_TRUE(plan.at(ids[1]).isLeader);
    EXPECT_FALSE(plan.at(ids[2]).isLeader);
    deliver(plan, ids[1]);
    beginAll(plan, ids);
    EXPECT_TRUE(plan.at(ids[3]).isLeader) << "the one before is through";
    EXPECT_FALSE(plan.at(ids[4]).isLeader);
}

TEST(SendPlan, RemembersCompanyAlsoOfWhoWasThereFirst) {
    SendPlan plan(std::vector<std::int64_t>(4, small), 1);
    std::vector<SendPlan::Id> ids;
    beginAll(plan, ids);
    EXPECT_FALSE(plan.at(ids[0]).hadCompany);
    deliver(plan, ids[0]);
    beginAll(plan, ids);
    EXPECT_TRUE(plan.at(ids[1]).hadCompany);
    deliver(plan, ids[2]);
    EXPECT_TRUE(plan.at(ids[1]).hadCompany) << "it had, for a time";
}

TEST(SendPlan, PutsOneTooManyBackToItsPlaceAndGoesOnWithOne) {
    SendPlan plan(std::vector<std::int64_t>(20, small), 1);
    std::vector<SendPlan::Id> ids;
    beginAll(plan, ids);
    deliver(plan, ids[0]);
    EXPECT_THAT(beginAll(plan, ids), ElementsAre(1, 2));
    EXPECT_EQ(plan.end(ids[2], SendVerdict::oneTooMany, AttemptStage::greeting), Outcome::putBack);
    EXPECT_EQ(plan.nextFor(0), std::nullopt) << "one is under way";
    EXPECT_EQ(plan.end(ids[1], SendVerdict::oneTooMany, AttemptStage::sending), Outcome::putBack);
    EXPECT_THAT(beginAll(plan, ids), ElementsAre(1));
    deliver(plan, ids.back());
    EXPECT_THAT(beginAll(plan, ids), ElementsAre(2));
    for (int taken = 1; taken < PhoneLanes::most; ++taken) {
        deliver(plan, ids.back());
        EXPECT_EQ(beginAll(plan, ids).size(), 1U);
    }
    deliver(plan, ids.back());
    EXPECT_EQ(beginAll(plan, ids).size(), 2U) << "with the ninth file that it has taken since";
}

TEST(SendPlan, IsDownToOneConnectionForAPhoneThatCannotBeReached) {
    SendPlan plan(std::vector<std::int64_t>(20, small), 1);
    std::vector<SendPlan::Id> ids;
    beginAll(plan, ids);
    deliver(plan, ids[0]);
    beginAll(plan, ids);
    deliver(plan, ids[1]);
    deliver(plan, ids[2]);
    EXPECT_EQ(beginAll(plan, ids).size(), 4U);
    for (std::size_t i = ids.size() - 4; i < ids.size(); ++i) {
        plan.end(ids[i], plan.at(ids[i]).isLeader ? SendVerdict::tryAgain : SendVerdict::oneTooMany,
                 AttemptStage::connecting);
    }
    EXPECT_EQ(beginAll(plan, ids).size(), 1U);
}

TEST(SendPlan, CallsEveryOtherEndAFailure) {
    for (const SendVerdict verdict : {SendVerdict::inDoubt, SendVerdict::fileLost, SendVerdict::phoneLost,
                                      SendVerdict::tryAgain, SendVerdict::cancelled}) {
        SendPlan plan({small}, 1);
        EXPECT_EQ(plan.end(plan.begin(0), verdict, AttemptStage::offering), Outcome::failed);
        EXPECT_TRUE(plan.isIdle());
        EXPECT_EQ(plan.waiting(), 0U);
    }
}

} // namespace
} // namespace orlinth::host
