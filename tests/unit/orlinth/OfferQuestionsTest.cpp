#include "orlinth/Asking/OfferQuestions.h"

#include "OrlinthHost/Service/OfferQueue.h"
#include "fakes/Event.h"
#include "fakes/World.h"
#include "platform/Spawn.h"

#include <asio/cancellation_signal.hpp>
#include <gtest/gtest.h>

namespace orlinth::cli {
namespace {

/// Standard input is no terminal here, as for a service.
class OfferQuestionsTest : public testing::Test {
protected:
    [[nodiscard]] Task<> ask(std::string name, std::optional<bool>& answer) {
        return askFor("phone", std::move(name), answer);
    }
    [[nodiscard]] Task<> askFor(std::string phone, std::string name, std::optional<bool>& answer) {
        answer = co_await queue_.wants({.name = name, .size = 1000, .from = "Pixel-8", .peerKey = PeerKey(phone)});
    }
    /// An offer whose phone can hang up.
    struct Offer {
        asio::cancellation_signal hangUp;
        std::optional<bool> answer;
        bool isGone = false;
    };
    std::unique_ptr<Offer> offer(const char* phone, const char* name) {
        auto made = std::make_unique<Offer>();
        platform::spawn(world_.context.get_executor(), askFor(phone, name, made->answer), made->hangUp.slot(),
                        [offer = made.get()](const std::exception_ptr& error) { offer->isGone = error != nullptr; });
        settle();
        return made;
    }
    void hangUp(Offer& offer) {
        offer.hangUp.emit(asio::cancellation_type::terminal);
        settle();
    }
    void pass(Seconds time) { fakes::runVirtual(world_.context, world_.clock, world_.clock.sleep(time)); }
    [[nodiscard]] std::vector<std::string> filesAsked() {
        std::vector<std::string> names;
        for (const auto& one : shown()) {
            const std::string& title = one.notification.title;
            names.push_back(title.substr(title.find("send ") + 5));
        }
        return names;
    }
    [[nodiscard]] Task<> askOf(std::string key) {
        first_ = co_await queue_.wants({.name = "a.txt", .size = 1000, .from = "Pixel-8", .peerKey = PeerKey(key)});
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
    host::OfferQueue queue_{host_, &questions_};
    std::optional<bool> first_;
    std::optional<bool> second_;
};

TEST_F(OfferQuestionsTest, TakesTheFileThatIsAcceptedOnTheDesktop) {
    world_.alongside(ask("a.txt", first_));
    settle();
    ASSERT_EQ(1U, shown().size());
    EXPECT_EQ("Pixel-8 wants to send a.txt", shown()[0].notification.title);
    EXPECT_EQ("1.0 kB", shown()[0].notification.body);
    EXPECT_EQ("", shown()[0].notification.clickLabel) << "a click must not be an answer";
    EXPECT_TRUE(shown()[0].notification.isUrgent);
    EXPECT_EQ((std::vector<std::pair<std::string, std::string>>{{"accept", "Accept"}, {"decline", "Decline"}}),
              shown()[0].notification.actions);
    EXPECT_FALSE(first_);
    world_.notifications.answer(0, "accept");
    EXPECT_EQ(1U, world_.notifications.there().size()) << "a click beside the buttons must not close it";
    fakes::runUntilIdle(world_.context, world_.clock);
    EXPECT_EQ(true, first_);
    EXPECT_TRUE(world_.notifications.there().empty()) << "it was answered";
}

TEST_F(OfferQuestionsTest, SaysWhichOfTwoPhonesItIsWhoseNamesLookAlike) {
    PeerBook book;
    for (const auto& [key, name] :
         {std::pair("AAAAAAAAAAAAAAAA", "Pixel-8"), std::pair("BBBBBBBBBBBBBBBB", "PIXEL-8")}) {
        PeerRecord record = world_.phoneRecord();
        record.peer_pubkey = PeerKey(key);
        record.peer_hostname = name;
        book.peers.push_back(record);
    }
    host_.peers().writeBook(book);
    world_.alongside(askOf("BBBBBBBBBBBBBBBB"));
    settle();
    ASSERT_EQ(1U, shown().size());
    EXPECT_EQ("Pixel-8 (key BBBBBBBBBBBB) wants to send a.txt", shown()[0].notification.title);
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
    const std::string& title = shown()[0].notification.title;
    EXPECT_TRUE(title.starts_with("Pixel-8 wants to send invoice.pdf\\u{202E}")) << title;
    EXPECT_TRUE(title.ends_with(".exe")) << title;
    EXPECT_LT(title.size(), 150U);
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
    EXPECT_EQ(2min, shown().at(0).notification.shownFor);
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
    settle();
    ASSERT_EQ(2U, shown().size());
    EXPECT_NE(std::string::npos, shown()[1].notification.title.find("b.txt"));
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

TEST_F(OfferQuestionsTest, GivesTheOfferThatCameAgainNoMoreTimeAsItWouldKeepOthersWaiting) {
    world_.alongside(ask("a.txt", first_));
    settle();
    pass(100s);
    EXPECT_FALSE(first_);
    world_.alongside(ask("a.txt", second_));
    fakes::runUntilIdle(world_.context, world_.clock);
    EXPECT_EQ(false, second_);
    EXPECT_NEAR(120, world_.clock.elapsed(), 0.5);
}

TEST_F(OfferQuestionsTest, TakesAQuestionBackWhosePhoneHangsUp) {
    const auto gone = offer("phone", "a.txt");
    ASSERT_EQ(1U, shown().size());
    hangUp(*gone);
    EXPECT_TRUE(gone->isGone);
    EXPECT_EQ((std::vector{shown()[0].notification.tag}), world_.notifications.withdrawn);
    const auto next = offer("phone", "b.txt");
    EXPECT_EQ(1U, shown().size()) << "an answer to the first one may be on its way";
    pass(host::OfferQueue::rest + 200ms);
    ASSERT_EQ(2U, shown().size());
    world_.notifications.answer(0, "accept"); // late
    pass(200ms);
    EXPECT_FALSE(next->answer);
    world_.notifications.answer(1, "accept");
    pass(200ms);
    EXPECT_EQ(true, next->answer);
}

TEST_F(OfferQuestionsTest, ForgetsAWaitingQuestionWhosePhoneHangsUp) {
    const auto first = offer("phone", "a.txt");
    const auto gone = offer("phone", "b.txt");
    const auto last = offer("other", "c.txt");
    hangUp(*gone);
    world_.notifications.answer(0, "decline");
    pass(200ms);
    EXPECT_EQ((std::vector<std::string>{"a.txt", "c.txt"}), filesAsked());
    EXPECT_EQ((std::vector{shown()[0].notification.tag}), world_.notifications.withdrawn) << "which was answered";
    world_.notifications.answer(1, "accept");
    pass(200ms);
    EXPECT_EQ(false, first->answer);
    EXPECT_EQ(true, last->answer);
}

TEST_F(OfferQuestionsTest, KeepsAQuestionThatANewerOfferHasComeTo) {
    const auto first = offer("phone", "a.txt");
    const auto second = offer("phone", "a.txt");
    pass(200ms);
    EXPECT_EQ(false, first->answer);
    const auto third = offer("phone", "a.txt");
    hangUp(*second); // its connection was dead
    EXPECT_EQ(1U, shown().size());
    EXPECT_TRUE(world_.notifications.withdrawn.empty());
    world_.notifications.answer(0, "accept");
    pass(200ms);
    EXPECT_EQ(true, third->answer);
}

TEST_F(OfferQuestionsTest, TwoTransfersOfOnePhoneNeverShareAQuestionHoweverAlikeTheyAre) {
    std::optional<bool> first;
    std::optional<bool> second;
    const auto askFor = [this](std::string id, std::optional<bool>& answer) -> Task<> {
        answer = co_await queue_.wants({.name = "a.txt",
                                        .size = 1000,
                                        .from = "Pixel-8",
                                        .peerKey = PeerKey("phone"),
                                        .transferId = TransferId(std::move(id))});
    };
    world_.alongside(askFor("1", first));
    world_.alongside(askFor("2", second));
    settle();
    world_.notifications.answer(0, "accept");
    pass(200ms);
    EXPECT_EQ(true, first);
    EXPECT_FALSE(second);
    ASSERT_EQ(2U, shown().size());
    world_.notifications.answer(1, "decline");
    pass(200ms);
    EXPECT_EQ(false, second);
}

TEST_F(OfferQuestionsTest, TwoPhonesOfOneNameNeverShareAQuestion) {
    const auto one = offer("phone", "a.txt");
    const auto other = offer("impostor", "a.txt");
    world_.notifications.answer(0, "accept");
    pass(200ms);
    EXPECT_EQ(true, one->answer);
    EXPECT_FALSE(other->answer);
    ASSERT_EQ(2U, shown().size());
    world_.notifications.answer(1, "decline");
    pass(200ms);
    EXPECT_EQ(false, other->answer);
}

TEST_F(OfferQuestionsTest, APhoneHasOneQuestionOpenAndThreeWaiting) {
    std::vector<std::unique_ptr<Offer>> offers;
    for (const char* name : {"a.txt", "b.txt", "c.txt", "d.txt", "e.txt", "f.txt"}) {
        offers.push_back(offer("phone", name));
    }
    EXPECT_FALSE(offers[3]->answer);
    EXPECT_EQ(false, offers[4]->answer);
    EXPECT_EQ(false, offers[5]->answer);
    const auto again = offer("phone", "d.txt"); // is no further question
    EXPECT_FALSE(again->answer);
    const auto other = offer("other", "x.txt");
    EXPECT_FALSE(other->answer);
    for (std::size_t i = 0; i < 5; ++i) {
        ASSERT_EQ(i + 1, shown().size());
        world_.notifications.answer(i, "accept");
        pass(200ms);
    }
    EXPECT_EQ((std::vector<std::string>{"a.txt", "x.txt", "b.txt", "c.txt", "d.txt"}), filesAsked())
        << "the phones take turns";
    EXPECT_TRUE(*again->answer && *other->answer && *offers[2]->answer);
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

TEST_F(OfferQuestionsTest, DeclinesAtOnceIfTheDesktopCannotShowTheQuestion) {
    world_.notifications.failsToShow = true;
    world_.alongside(ask("a.txt", first_));
    testing::internal::CaptureStderr();
    settle();
    const std::string told = testing::internal::GetCapturedStderr();
    EXPECT_EQ(1U, shown().size());
    EXPECT_EQ(false, first_);
    EXPECT_EQ(0, world_.clock.elapsed());
    EXPECT_NE(std::string::npos, told.find("nobody to ask")) << told;
}

TEST_F(OfferQuestionsTest, LeavesAQuestionThatTheDesktopCannotShowToWhoeverElseSeesIt) {
    world_.notifications.failsToShow = true;
    const std::shared_ptr<const void> onlooker = queue_.onlooker();
    world_.alongside(ask("a.txt", first_));
    settle();
    EXPECT_EQ(1U, shown().size());
    EXPECT_FALSE(first_);
    EXPECT_TRUE(queue_.answer(queue_.open().at(0).number, true));
    settle();
    EXPECT_EQ(true, first_);
}

TEST_F(OfferQuestionsTest, TakesNothingButItsButtonsForAnAnswer) {
    world_.alongside(ask("a.txt", first_));
    settle();
    for (const char* key : {"default", "Accept", "something else"}) {
        world_.notifications.answer(0, key);
        settle();
        EXPECT_FALSE(first_) << key;
        EXPECT_EQ(1U, world_.notifications.there().size()) << key;
    }
    world_.notifications.answer(0, "accept");
    fakes::runUntilIdle(world_.context, world_.clock);
    EXPECT_EQ(true, first_);
}

TEST_F(OfferQuestionsTest, TakesTheNotificationAwayIfTheQuestionIsAnsweredElsewhere) {
    world_.alongside(ask("a.txt", first_));
    settle();
    ASSERT_EQ(1U, shown().size());
    EXPECT_TRUE(queue_.answer(queue_.open().at(0).number, true));
    settle();
    EXPECT_EQ(true, first_);
    EXPECT_EQ((std::vector{shown()[0].notification.tag}), world_.notifications.withdrawn);
}

} // namespace
} // namespace orlinth::cli
