#include "OrlinthHost/Service/OfferQueue.h"

#include "fakes/World.h"
#include "platform/Spawn.h"

#include <asio/cancellation_signal.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace orlinth::host {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

/// Keeps what it is to ask, and what is over.
class RecordingAsker final : public OfferAsker {
public:
    bool ask(const OfferView& offer, Answer answer) override {
        if (!isThere) {
            return false;
        }
        asked.push_back(offer.name);
        answers.push_back(std::move(answer));
        return true;
    }
    void over(OfferNumber number, End end) override { ended.emplace_back(static_cast<std::uint64_t>(number), end); }
    void nobodyIsThere() override { ++declined; }

    bool isThere = true;
    int declined = 0;
    std::vector<std::string> asked;
    std::vector<Answer> answers;
    std::vector<std::pair<std::uint64_t, End>> ended;
};

class OfferQueueTest : public testing::Test {
protected:
    OfferQueueTest() {
        queue_.onChanged = [this] { ++changes_; };
    }
    ~OfferQueueTest() override {
        for (const std::shared_ptr<Offer>& one : offers_) {
            one->hangUp.emit(asio::cancellation_type::terminal);
        }
        settle();
    }

    /// An offer whose phone can hang up.
    struct Offer {
        asio::cancellation_signal hangUp;
        std::optional<bool> answer;
    };
    std::shared_ptr<Offer> offer(const std::string& name, const std::string& phone = "phone") {
        const std::shared_ptr<Offer> made = offers_.emplace_back(std::make_shared<Offer>());
        platform::spawn(world_.context.get_executor(), askFor(phone, name, made->answer), made->hangUp.slot(),
                        [](const std::exception_ptr&) {});
        settle();
        return made;
    }
    [[nodiscard]] Task<> askFor(std::string phone, std::string name, std::optional<bool>& answer) {
        answer = co_await queue_.wants(
            {.name = std::move(name), .size = 1000, .from = "Name of " + phone, .peerKey = PeerKey(phone)});
    }
    void settle() {
        world_.context.restart();
        world_.context.poll();
    }
    void pass(Seconds time) { fakes::runVirtual(world_.context, world_.clock, world_.clock.sleep(time)); }
    [[nodiscard]] std::vector<std::uint64_t> numbers() const {
        std::vector<std::uint64_t> numbers;
        for (const OfferView& one : queue_.open()) {
            numbers.push_back(static_cast<std::uint64_t>(one.number));
        }
        return numbers;
    }
    [[nodiscard]] bool answer(std::uint64_t number, bool isAccepted) {
        const bool wasOpen = queue_.answer(OfferNumber{number}, isAccepted);
        settle();
        return wasOpen;
    }

    fakes::World world_;
    Home home_{.system = world_.system, .executor = world_.context.get_executor()};
    RecordingAsker asker_;
    OfferQueue queue_{home_, &asker_};
    int changes_ = 0;
    std::vector<std::shared_ptr<Offer>> offers_;
};

using End = OfferAsker::End;

TEST_F(OfferQueueTest, ShowsWhatIsAskedAndWhatWaits) {
    const auto first = offer("a.txt");
    const auto second = offer("b.txt");
    EXPECT_THAT(asker_.asked, ElementsAre("a.txt"));
    const std::vector<OfferView> open = queue_.open();
    ASSERT_THAT(open, SizeIs(2));
    const OfferView expected{.number = OfferNumber{1},
                             .peerKey = PeerKey("phone"),
                             .phone = "Name of phone",
                             .name = "a.txt",
                             .size = 1000,
                             .expires = world_.clock.epochMilliseconds() + 2min};
    EXPECT_EQ(expected, open[0]);
    EXPECT_EQ("b.txt", open[1].name);
    EXPECT_EQ(std::nullopt, open[1].expires) << "it has not been asked";
    EXPECT_GT(changes_, 0);
}

TEST_F(OfferQueueTest, ANameThatIsTooLongIsShownWithoutItsMiddleAndStillTellsOffersApart) {
    const std::string front(1000, 'a');
    const auto first = offer(front + "1" + front + ".exe");
    const auto second = offer(front + "2" + front + ".exe");
    const std::vector<OfferView> open = queue_.open();
    ASSERT_THAT(open, SizeIs(2));
    EXPECT_LT(open[0].name.size(), 300U);
    EXPECT_TRUE(open[0].name.ends_with("a.exe")) << open[0].name;
}

TEST_F(OfferQueueTest, AFaceAnswersWhatIsAskedAndTheAskerHearsOfIt) {
    const auto asked = offer("a.txt");
    const int before = changes_;
    EXPECT_TRUE(answer(1, true));
    EXPECT_EQ(true, asked->answer);
    EXPECT_THAT(asker_.ended, ElementsAre(std::pair(std::uint64_t{1}, End::answered)));
    EXPECT_GT(changes_, before);
    EXPECT_THAT(numbers(), IsEmpty());
}

TEST_F(OfferQueueTest, TheFirstAnswerCounts) {
    const auto one = offer("a.txt");
    EXPECT_TRUE(answer(1, false));
    EXPECT_FALSE(answer(1, true));
    asker_.answers.at(0)(true); // by somebody who has not heard of it yet
    settle();
    EXPECT_EQ(false, one->answer);
    pass(OfferQueue::rest);
    const auto other = offer("b.txt");
    asker_.answers.at(0)(true);
    settle();
    EXPECT_FALSE(other->answer) << "that was about another file";
    asker_.answers.at(1)(true);
    EXPECT_FALSE(answer(2, false));
    EXPECT_EQ(true, other->answer);
    EXPECT_THAT(asker_.ended, SizeIs(1));
}

TEST_F(OfferQueueTest, AFaceAnswersWhatWaitsItsTurnAndNothingElseMoves) {
    const auto first = offer("a.txt");
    const auto second = offer("b.txt");
    const auto third = offer("c.txt");
    EXPECT_TRUE(answer(2, true));
    EXPECT_EQ(true, second->answer);
    EXPECT_THAT(asker_.asked, ElementsAre("a.txt"));
    EXPECT_THAT(asker_.ended, IsEmpty());
    asker_.answers.at(0)(false);
    settle();
    EXPECT_EQ(false, first->answer);
    EXPECT_THAT(asker_.asked, ElementsAre("a.txt", "c.txt"));
    EXPECT_THAT(numbers(), ElementsAre(3));
}

TEST_F(OfferQueueTest, TheNextQuestionWaitsALittleIfTheAskerMayHaveAnAnswerOnItsWay) {
    const auto first = offer("a.txt");
    const auto second = offer("b.txt", "other");
    EXPECT_TRUE(answer(1, true));
    EXPECT_THAT(asker_.asked, SizeIs(1));
    pass(OfferQueue::rest + 1ms);
    EXPECT_THAT(asker_.asked, ElementsAre("a.txt", "b.txt"));
}

TEST_F(OfferQueueTest, AnUnknownNumberIsNoQuestion) {
    EXPECT_FALSE(answer(1, true));
    const auto one = offer("a.txt");
    EXPECT_FALSE(answer(2, true));
    EXPECT_FALSE(one->answer);
}

TEST_F(OfferQueueTest, APhoneThatHangsUpTakesItsQuestionWithIt) {
    const auto gone = offer("a.txt");
    gone->hangUp.emit(asio::cancellation_type::terminal);
    settle();
    EXPECT_THAT(numbers(), IsEmpty());
    EXPECT_THAT(asker_.ended, ElementsAre(std::pair(std::uint64_t{1}, End::phoneGone)));
    EXPECT_FALSE(answer(1, true));
}

TEST_F(OfferQueueTest, TheSameOfferAgainIsTheSameQuestionAndTheNewestGetsTheAnswer) {
    const auto first = offer("a.txt");
    const auto second = offer("a.txt");
    EXPECT_EQ(false, first->answer);
    EXPECT_THAT(numbers(), ElementsAre(1));
    EXPECT_TRUE(answer(1, true));
    EXPECT_EQ(true, second->answer);
}

TEST_F(OfferQueueTest, IsDeclinedIfNobodyAnswersInTwoMinutes) {
    const auto one = offer("a.txt");
    pass(2min - 1ms);
    EXPECT_FALSE(one->answer);
    pass(2ms);
    EXPECT_EQ(false, one->answer);
    EXPECT_THAT(asker_.ended, ElementsAre(std::pair(std::uint64_t{1}, End::expired)));
}

TEST_F(OfferQueueTest, IsDeclinedAtOnceIfThereIsNobody) {
    asker_.isThere = false;
    const auto one = offer("a.txt");
    EXPECT_EQ(false, one->answer);
    EXPECT_EQ(1, asker_.declined);
    EXPECT_EQ(0, world_.clock.elapsed());
    EXPECT_THAT(asker_.ended, IsEmpty());
}

TEST_F(OfferQueueTest, WaitsIfAFaceShowsItThoughNobodyElseCanBeAsked) {
    asker_.isThere = false;
    std::shared_ptr<const void> onlooker = queue_.onlooker();
    const auto one = offer("a.txt");
    EXPECT_FALSE(one->answer);
    EXPECT_EQ(world_.clock.epochMilliseconds() + 2min, queue_.open().at(0).expires);
    onlooker.reset(); // it may come back
    settle();
    EXPECT_FALSE(one->answer);
    EXPECT_TRUE(answer(1, true));
    EXPECT_EQ(true, one->answer);
    EXPECT_THAT(asker_.ended, IsEmpty());
    const auto other = offer("b.txt");
    EXPECT_EQ(false, other->answer) << "nobody looks on any more";
    EXPECT_EQ(1, asker_.declined);
}

TEST_F(OfferQueueTest, IsDeclinedIfItTurnsOutThatNobodyCouldBeAsked) {
    const auto one = offer("a.txt");
    EXPECT_FALSE(one->answer);
    asker_.answers.at(0)(std::nullopt);
    settle();
    EXPECT_EQ(false, one->answer);
    EXPECT_EQ(1, asker_.declined);
    EXPECT_THAT(asker_.ended, IsEmpty());
}

TEST_F(OfferQueueTest, WaitsForAFaceIfItTurnsOutThatNobodyElseCouldBeAsked) {
    const std::shared_ptr<const void> onlooker = queue_.onlooker();
    const auto one = offer("a.txt");
    asker_.answers.at(0)(std::nullopt);
    settle();
    EXPECT_FALSE(one->answer);
    pass(1min);
    EXPECT_TRUE(answer(1, true));
    EXPECT_EQ(true, one->answer);
    EXPECT_THAT(asker_.ended, IsEmpty()) << "it has nothing to take back";
    const auto other = offer("b.txt");
    asker_.answers.at(1)(std::nullopt);
    pass(2min + 1ms);
    EXPECT_EQ(false, other->answer);
    EXPECT_EQ(0, asker_.declined);
}

TEST_F(OfferQueueTest, AServiceThatAsksNobodyHasItsFaces) {
    OfferQueue queue(home_, nullptr);
    const std::shared_ptr<const void> onlooker = queue.onlooker();
    std::optional<bool> wanted;
    const auto ask = [](OfferQueue& of, std::optional<bool>& answer) -> Task<> {
        answer = co_await of.wants({.name = "a.txt", .size = 1, .from = "P", .peerKey = PeerKey("p")});
    };
    world_.alongside(ask(queue, wanted));
    settle();
    EXPECT_TRUE(queue.answer(OfferNumber{1}, true));
    settle();
    EXPECT_EQ(true, wanted);
}

} // namespace
} // namespace orlinth::host
