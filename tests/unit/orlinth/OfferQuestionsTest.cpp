#include "orlinth/OfferQuestions.h"

#include "fakes/Event.h"
#include "fakes/World.h"

#include <gtest/gtest.h>

namespace orlinth::host {
namespace {

/// Standard input is no terminal here, as for a service.
class OfferQuestionsTest : public testing::Test {
protected:
    [[nodiscard]] Task<> ask(std::string name, std::optional<bool>& answer) {
        answer = co_await questions_.wants({.name = name, .size = 1000, .from = "Pixel-8"});
    }
    [[nodiscard]] Task<> askOf(std::string key) {
        first_ = co_await questions_.wants({.name = "a.txt", .size = 1000, .from = "Pixel-8", .peerPubkey = key});
    }

    /// Until nothing moves without time moving.
    void settle() {
        world_.context.restart();
        world_.context.poll();
    }

    [[nodiscard]] std::vector<fakes::FakeNotifications::Shown>& shown() { return world_.notifications.shown; }

    fakes::World world_;
    TaskRunner tasks_{world_.context};
    Output output_;
    Host host_{world_.system, tasks_, output_};
    OfferQuestions questions_{host_};
    std::optional<bool> first_;
    std::optional<bool> second_;
};

TEST_F(OfferQuestionsTest, TakesTheFileThatIsAcceptedOnTheDesktop) {
    world_.alongside(ask("a.txt", first_));
    settle();
    ASSERT_EQ(1U, shown().size());
    EXPECT_EQ("Pixel-8 wants to send a.txt (1.0 kB). Take it?", shown()[0].notification.body);
    EXPECT_EQ((std::vector<std::pair<std::string, std::string>>{{"accept", "Accept"}, {"decline", "Decline"}}),
              shown()[0].notification.actions);
    EXPECT_FALSE(first_);
    world_.notifications.answer(0, "accept");
    fakes::runUntilIdle(world_.context, world_.clock);
    EXPECT_EQ(true, first_);
}

TEST_F(OfferQuestionsTest, SaysWhichOfTwoPhonesItIsWhoseNamesLookAlike) {
    PeerBook book;
    for (const auto& [key, name] :
         {std::pair("AAAAAAAAAAAAAAAA", "Pixel-8"), std::pair("BBBBBBBBBBBBBBBB", "PIXEL-8")}) {
        PeerRecord record = world_.phoneRecord();
        record.peer_pubkey = key;
        record.peer_hostname = name;
        book.peers.push_back(record);
    }
    host_.peers().writeBook(book);
    world_.alongside(askOf("BBBBBBBBBBBBBBBB"));
    settle();
    ASSERT_EQ(1U, shown().size());
    EXPECT_EQ("Pixel-8 (key BBBBBBBBBBBB) wants to send a.txt (1.0 kB). Take it?", shown()[0].notification.body);
    world_.notifications.answer(0, "decline");
    fakes::runUntilIdle(world_.context, world_.clock);
}

TEST_F(OfferQuestionsTest, AsksInOneLineThatNothingHidesIn) {
    std::string name = "invoice.pdf";
    while (name.size() < std::size_t{16} << 20) {
        name += "\u202e";
    }
    name += ".exe";
    world_.alongside(ask(name, first_));
    settle();
    ASSERT_EQ(1U, shown().size());
    const std::string& body = shown()[0].notification.body;
    EXPECT_TRUE(body.starts_with("Pixel-8 wants to send invoice.pdf\\u{202E}")) << body;
    EXPECT_TRUE(body.ends_with(".exe (1.0 kB). Take it?")) << body;
    EXPECT_LT(body.size(), 300U);
    world_.notifications.answer(0, "decline");
    fakes::runUntilIdle(world_.context, world_.clock);
}

TEST_F(OfferQuestionsTest, DeclinesWhatIsDeclinedOrClosed) {
    for (const char* key : {"decline", ""}) {
        first_.reset();
        world_.alongside(ask("a.txt", first_));
        settle();
        world_.notifications.answer(shown().size() - 1, key);
        fakes::runUntilIdle(world_.context, world_.clock);
        EXPECT_EQ(false, first_) << key;
    }
}

TEST_F(OfferQuestionsTest, DeclinesAfterTwoMinutesWithoutAnAnswer) {
    world_.alongside(ask("a.txt", first_));
    settle();
    while (!first_ && world_.clock.elapsed() < 1000) {
        ASSERT_TRUE(world_.clock.advanceToNextAlarm());
        settle();
    }
    EXPECT_EQ(false, first_);
    EXPECT_NEAR(120, world_.clock.elapsed(), 0.2);
    EXPECT_EQ(120, shown().at(0).notification.seconds);
    world_.notifications.answer(0, "accept"); // too late, and nobody is there any more to hear it
    fakes::runUntilIdle(world_.context, world_.clock);
    EXPECT_EQ(false, first_);
}

TEST_F(OfferQuestionsTest, AsksOneAfterTheOther) {
    world_.alongside(ask("a.txt", first_));
    world_.alongside(ask("b.txt", second_));
    settle();
    EXPECT_EQ(1U, shown().size());
    world_.notifications.answer(0, "decline");
    world_.clock.advanceToNextAlarm();
    settle();
    ASSERT_EQ(2U, shown().size());
    EXPECT_NE(std::string::npos, shown()[1].notification.body.find("b.txt"));
    world_.notifications.answer(1, "accept");
    fakes::runUntilIdle(world_.context, world_.clock);
    EXPECT_EQ(false, first_);
    EXPECT_EQ(true, second_);
}

TEST_F(OfferQuestionsTest, AsksOnceForAFileThatIsOfferedAgainAndAnswersTheNewestOffer) {
    world_.alongside(ask("a.txt", first_));
    settle();
    world_.alongside(ask("a.txt", second_)); // the phone has given the first connection up
    settle();
    EXPECT_EQ(1U, shown().size());
    world_.notifications.answer(0, "accept");
    fakes::runUntilIdle(world_.context, world_.clock);
    EXPECT_EQ(false, first_);
    EXPECT_EQ(true, second_);

    world_.alongside(ask("a.txt", first_)); // and later it is a question again
    settle();
    EXPECT_EQ(2U, shown().size());
    world_.notifications.answer(1, "decline");
    fakes::runUntilIdle(world_.context, world_.clock);
}

TEST_F(OfferQuestionsTest, GivesTheOfferThatCameAgainItsOwnTwoMinutes) {
    world_.alongside(ask("a.txt", first_));
    settle();
    while (world_.clock.elapsed() < 100) {
        ASSERT_TRUE(world_.clock.advanceToNextAlarm());
        settle();
    }
    world_.alongside(ask("a.txt", second_));
    fakes::runUntilIdle(world_.context, world_.clock);
    EXPECT_EQ(false, second_);
    EXPECT_NEAR(220, world_.clock.elapsed(), 0.5);
}

TEST_F(OfferQuestionsTest, DeclinesAtOnceWhereThereIsNobodyToAsk) {
    world_.notifications.available = false;
    world_.alongside(ask("a.txt", first_));
    world_.alongside(ask("b.txt", second_));
    testing::internal::CaptureStderr();
    settle();
    const std::string told = testing::internal::GetCapturedStderr();
    EXPECT_EQ(false, first_);
    EXPECT_EQ(false, second_);
    EXPECT_EQ(0, world_.clock.elapsed());
    EXPECT_TRUE(shown().empty());
    EXPECT_EQ(told.find("nobody to ask"), told.rfind("nobody to ask")) << "told more than once: " << told;
    EXPECT_NE(std::string::npos, told.find("nobody to ask"));
}

} // namespace
} // namespace orlinth::host
