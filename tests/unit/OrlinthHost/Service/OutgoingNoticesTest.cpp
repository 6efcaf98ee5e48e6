#include "OrlinthHost/Service/OutgoingNotices.h"

#include "RecordingDesktop.h"
#include "fakes/FakeJobViews.h"
#include "fakes/World.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace orlinth::host {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using State = OutboxView::State;
using Why = OutboxEvents::Failure::Why;
using Actions = std::vector<std::pair<std::string, std::string>>;

/// What a desktop is told of what is sent, and what its buttons do.
class OutgoingNoticesTest : public testing::Test {
protected:
    OutgoingNoticesTest() { jobs_.first = platform::JobView::State::refused; }

    [[nodiscard]] static OutboxView batch(State state, std::size_t files = 3, const std::string& id = "0A",
                                          const std::string& key = "AAAA") {
        return {.batch = BatchId(id), .peerKey = PeerKey(key), .phone = "Pixel", .files = files, .state = state};
    }
    [[nodiscard]] static TransferView transfer(const std::string& name, std::int64_t done, std::int64_t rate = 0) {
        return {.direction = TransferView::Direction::out,
                .peerKey = PeerKey("AAAA"),
                .phone = "Pixel",
                .name = name,
                .batch = BatchId("0A"),
                .bytes = {.done = done, .total = 1000},
                .bytesPerSecond = rate};
    }
    void look() { next_ = notices_.look(batches_, transfers_); }
    void pass(Seconds time) {
        const platform::Clock::Instant end = world_.clock.now() + time;
        while (world_.clock.now() < end) {
            const Seconds left = end - world_.clock.now();
            world_.run(world_.clock.sleep(next_ ? std::min(left, std::max(*next_, Seconds(0.001))) : left));
            look();
        }
    }
    void through(const std::vector<std::string>& files) {
        notices_.through(BatchId("0A"), PeerKey("AAAA"), "Pixel", files);
    }
    void fail(const std::string& file, Why why) {
        notices_.failed(BatchId("0A"), PeerKey("AAAA"), "Pixel", {file}, why);
    }
    [[nodiscard]] std::vector<fakes::FakeNotifications::Shown>& shown() { return world_.notifications.shown; }
    [[nodiscard]] const platform::Notification& last() { return shown().back().notification; }
    void press(const std::string& key) {
        world_.notifications.answer(shown().size() - 1, key);
        world_.context.restart();
        world_.context.poll();
    }
    [[nodiscard]] std::vector<std::string> screen() {
        std::vector<std::string> texts;
        for (const std::size_t i : world_.notifications.there()) {
            texts.push_back(shown()[i].notification.title + " / " + shown()[i].notification.body);
        }
        return texts;
    }

    fakes::World world_;
    Home home_{.system = world_.system, .executor = world_.context.get_executor()};
    RecordingDesktop desktop_;
    RecordingRequests requests_;
    fakes::FakeJobViews jobs_;
    OutgoingNotices notices_{NoticeBoard(home_, &jobs_, {}), desktop_, requests_, [] {}};
    std::vector<OutboxView> batches_;
    std::vector<TransferView> transfers_;
    std::optional<Seconds> next_;
};

TEST_F(OutgoingNoticesTest, ABatchThatIsSentAtOnceIsOneNotification) {
    batches_ = {batch(State::sending)};
    look();
    pass(3s);
    EXPECT_THAT(shown(), IsEmpty());
    through({"a.jpg", "b.jpg", "c.jpg"});
    batches_.clear();
    pass(100s);
    EXPECT_THAT(screen(), ElementsAre("Sent 3 files to Pixel / "));
    EXPECT_EQ(1U, shown().size());
    EXPECT_EQ(last().category, "transfer.complete");
    EXPECT_TRUE(last().isTransient);
    EXPECT_TRUE(last().isClickForWindow);
    through({"film.mov"});
    EXPECT_EQ(last().title, "Sent film.mov to Pixel");
}

TEST_F(OutgoingNoticesTest, ABatchThatTakesLongSaysHowFarItIsAndThenThatItIsSent) {
    batches_ = {batch(State::sending, 400)};
    batches_[0].filesDone = 38;
    transfers_ = {transfer("a.jpg", 500, 2'000'000), transfer("b.jpg", 0, 1'000'000)};
    look();
    pass(4900ms);
    EXPECT_THAT(shown(), IsEmpty());
    pass(200ms);
    EXPECT_THAT(screen(), ElementsAre("Sending 38 of 400 files to Pixel / 9 % · 3.0 MB/s"));
    EXPECT_EQ(last().percent, 9);
    EXPECT_EQ(last().category, "transfer");
    EXPECT_TRUE(last().isResident);
    EXPECT_EQ(last().actions, (Actions{{"cancel", "Cancel"}}));
    const std::uint64_t tag = last().tag;
    for (int i = 0; i < 40; ++i) {
        ++batches_[0].filesDone;
        batches_[0].state = i % 2 == 0 ? State::waiting : State::sending; // between two files nothing is under way
        world_.run(world_.clock.sleep(250ms));
        look();
    }
    EXPECT_GE(shown().size(), 10U);
    EXPECT_LE(shown().size(), 12U);
    EXPECT_TRUE(last().isQuiet);
    press("cancel");
    EXPECT_THAT(requests_.all, ElementsAre("drop 0A for AAAA"));
    through({"a.jpg", "b.jpg"});
    EXPECT_EQ(last().tag, tag);
    EXPECT_THAT(screen(), ElementsAre("Sent 2 files to Pixel / "));
}

TEST_F(OutgoingNoticesTest, ABatchThatComesToRestIsNotOnItsWay) {
    batches_ = {batch(State::sending, 1)};
    transfers_ = {transfer("film.mov", 380)};
    look();
    pass(6s);
    EXPECT_EQ(1U, screen().size());
    batches_[0].state = State::paused;
    transfers_.clear();
    pass(5s);
    EXPECT_THAT(screen(), IsEmpty());
    pass(60s);
    EXPECT_THAT(screen(), ElementsAre("Waiting for Pixel / It gets 1 file as soon as it is here."));
}

TEST_F(OutgoingNoticesTest, OfASingleFileItSaysItsNameAndTheTimeLeft) {
    batches_ = {batch(State::sending, 1)};
    transfers_ = {transfer("film.mov", 380, 62)};
    look();
    pass(6s);
    EXPECT_THAT(screen(), ElementsAre("Sending film.mov to Pixel / 38 % · 10 s left"));
}

TEST_F(OutgoingNoticesTest, APhoneThatIsAwayIsToldOfAfterAMinuteOnce) {
    batches_ = {batch(State::paused)};
    batches_[0].problem = "network: Connection refused";
    look();
    pass(59s);
    EXPECT_THAT(shown(), IsEmpty());
    pass(2s);
    EXPECT_THAT(screen(), ElementsAre("Waiting for Pixel / It gets 3 files as soon as it is here."));
    EXPECT_TRUE(last().isQuiet);
    EXPECT_EQ(last().actions, (Actions{{"retry", "Try now"}, {"drop", "Drop"}}));
    pass(1000s);
    EXPECT_EQ(1U, shown().size());
    press("retry");
    EXPECT_THAT(requests_.all, ElementsAre("retry 0A for AAAA"));
    pass(1000s);
    EXPECT_EQ(1U, shown().size()) << "it was answered";
    batches_[0].state = State::sending;
    pass(2s);
    through({"a.jpg", "b.jpg", "c.jpg"});
    batches_.clear();
    look();
    EXPECT_THAT(screen(), ElementsAre("Sent 3 files to Pixel / "));
}

TEST_F(OutgoingNoticesTest, WhatIsTakenBackIsWaitedForNoMore) {
    batches_ = {batch(State::paused)};
    look();
    pass(61s);
    EXPECT_EQ(1U, screen().size());
    press("drop");
    EXPECT_THAT(requests_.all, ElementsAre("drop 0A for AAAA"));
    batches_ = {batch(State::paused, 1, "0B")};
    look();
    pass(61s);
    EXPECT_EQ(1U, screen().size());
    batches_.clear();
    look();
    EXPECT_THAT(screen(), IsEmpty());
}

TEST_F(OutgoingNoticesTest, WhatWaitsForItsTurnDoesNotWaitForThePhone) {
    batches_ = {batch(State::sending), batch(State::waiting, 2, "0B")};
    transfers_ = {transfer("a.jpg", 1)};
    look();
    pass(300s);
    EXPECT_EQ(1U, screen().size());
    EXPECT_TRUE(last().title.starts_with("Sending"));
}

TEST_F(OutgoingNoticesTest, WhatIsNotSentIsToldInPlainWords) {
    const std::vector<std::pair<Why, std::string>> reasons{
        {Why::declined, "The phone declined it. Try again, and accept it on the phone."},
        {Why::removed, "The phone has removed this computer. Pair it again, then try again."},
        {Why::inDoubt, "The connection broke at the very end. Check on the phone whether it is there."},
        {Why::notPaired, "The phone is not paired any more. Pair it again, then try again."},
        {Why::unreadable, "It cannot be read any more. Share it again."}};
    for (const auto& [why, text] : reasons) {
        fail("b.iso", why);
        pass(1s);
        EXPECT_EQ(last().title, "Could not send b.iso to Pixel");
        EXPECT_EQ(last().body, text);
        EXPECT_EQ(last().category, "transfer.error");
        EXPECT_EQ(last().actions, (Actions{{"retry", "Try again"}, {"drop", "Drop"}}));
    }
    press("retry");
    press("retry"); // it is gone
    EXPECT_THAT(requests_.all, ElementsAre("retry 0A for AAAA"));
}

TEST_F(OutgoingNoticesTest, SeveralFailuresOfABatchAreOneNotificationAndTheRestIsNotToldOver) {
    batches_ = {batch(State::sending)};
    look();
    fail("a.jpg", Why::declined);
    look();
    fail("b.jpg", Why::declined);
    fail("b.jpg", Why::declined);
    look();
    EXPECT_EQ(1U, shown().size());
    pass(1s);
    EXPECT_THAT(screen(), ElementsAre("Could not send 2 files to Pixel / The phone declined it. Try again, and accept "
                                      "it on the phone."));
    through({"c.jpg"});
    batches_.clear();
    look();
    EXPECT_EQ(1U, screen().size());
    EXPECT_EQ(last().title, "Could not send 2 files to Pixel");
    batches_ = {batch(State::sending)}; // somebody tries it again
    look();
    through({"a.jpg", "b.jpg", "c.jpg"});
    EXPECT_THAT(screen(), ElementsAre("Sent 3 files to Pixel / "));
}

TEST_F(OutgoingNoticesTest, WhereJobsAreShownProgressIsAJobAndTheEndANotification) {
    jobs_.first = platform::JobView::State::shown;
    batches_ = {batch(State::paused, 1)};
    look();
    pass(61s);
    EXPECT_EQ(1U, screen().size());
    batches_[0].state = State::sending;
    transfers_ = {transfer("film.mov", 380, 62)};
    look();
    pass(10s);
    ASSERT_EQ(1U, jobs_.all.size());
    EXPECT_THAT(screen(), IsEmpty()) << "nobody is waited for any more";
    EXPECT_EQ(jobs_.all[0]->jobs.back().title, "Sending film.mov to Pixel");
    EXPECT_EQ(jobs_.all[0]->jobs.back().percent, 38);
    EXPECT_EQ(jobs_.all[0]->jobs.back().bytes.total, 1000);
    EXPECT_LE(jobs_.all[0]->jobs.size(), 7U);
    jobs_.all[0]->onCancel();
    EXPECT_THAT(requests_.all, ElementsAre("drop 0A for AAAA"));
    through({"film.mov"});
    EXPECT_TRUE(jobs_.all[0]->isEnded);
    EXPECT_THAT(screen(), ElementsAre("Sent film.mov to Pixel / "));
}

TEST_F(OutgoingNoticesTest, AtTheEndNothingStaysThatIsNotTrueAnyMore) {
    batches_ = {batch(State::paused), batch(State::sending, 1, "0B", "BBBB")};
    look();
    pass(61s);
    EXPECT_EQ(2U, screen().size());
    notices_.stop();
    EXPECT_THAT(screen(), IsEmpty());
    through({"a.jpg"});
    fail("a.jpg", Why::declined);
    look();
    EXPECT_THAT(screen(), IsEmpty());
}

TEST_F(OutgoingNoticesTest, NothingIsDoneForAClickOnceItHasStopped) {
    batches_ = {batch(State::sending)};
    look();
    fail("b.iso", Why::declined);
    pass(1s);
    notices_.stop();
    EXPECT_EQ(1U, screen().size());
    press("retry");
    EXPECT_THAT(requests_.all, IsEmpty());
}

} // namespace
} // namespace orlinth::host
