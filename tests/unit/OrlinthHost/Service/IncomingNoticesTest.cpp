#include "OrlinthHost/Service/IncomingNotices.h"

#include "RecordingDesktop.h"
#include "fakes/FakeJobViews.h"
#include "fakes/World.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace orlinth::host {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Actions = std::vector<std::pair<std::string, std::string>>;

/// What a desktop is told of files that come in, and what its buttons do.
class IncomingNoticesTest : public testing::Test {
protected:
    ~IncomingNoticesTest() override {
        notices_.stop();
        world_.run(notices_.finish());
    }

    /// A file of this phone that comes in, from now on.
    [[nodiscard]] TransferView transfer(std::uint64_t number, const std::string& name) const {
        return {.number = TransferNumber{number},
                .peerKey = PeerKey("AAAA"),
                .phone = "Pixel",
                .name = name,
                .bytes = {.done = 0, .total = 1000},
                .beganAt = world_.clock.now()};
    }
    void arrive(const platform::Path& path, std::int64_t bytes = 4'100'000, const std::string& phone = "Pixel",
                const std::string& key = "AAAA") {
        world_.files.put(path, "content");
        Receiver::File file{.file = {}, .from = phone, .peerKey = PeerKey(key)};
        file.file.savedAt = path;
        file.file.bytesWritten = file.file.advertisedSize = bytes;
        notices_.fileReceived(file);
        look();
    }
    IncomingNoticesTest() { jobs_.first = platform::JobView::State::refused; }

    /// As the service does: once, and whenever the notices ask for it.
    void look() {
        next_ = notices_.look(transfers_);
        for (int turns = 0; turns < 4; ++turns) {
            world_.context.restart();
            world_.context.poll();
            if (std::exchange(isAsked_, false)) {
                next_ = notices_.look(transfers_);
            }
        }
    }
    /// Lets time pass, and looks when the notices want it.
    void pass(Seconds time) {
        const platform::Clock::Instant end = world_.clock.now() + time;
        while (world_.clock.now() < end) {
            const Seconds left = end - world_.clock.now();
            world_.run(world_.clock.sleep(next_ ? std::min(left, std::max(*next_, Seconds(0.001))) : left));
            look();
        }
    }
    [[nodiscard]] std::vector<fakes::FakeNotifications::Shown>& shown() { return world_.notifications.shown; }
    [[nodiscard]] const platform::Notification& last() { return shown().back().notification; }
    void press(const std::string& key, const std::string& token = "") {
        world_.notifications.answer(shown().size() - 1, key, token);
        world_.context.restart();
        world_.context.poll();
    }
    /// "title / body" of what is on the screen.
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
    bool isAsked_ = false;
    fakes::FakeJobViews jobs_;
    bool isOn_ = true;
    IncomingNotices notices_{NoticeBoard(home_, &jobs_, [this] { return isOn_; }), desktop_, requests_,
                             [this] { isAsked_ = true; },
                             [](const PeerKey& phone) { return platform::Path("/srv") / phone.text(); }};
    std::vector<TransferView> transfers_;
    std::optional<Seconds> next_;
};

TEST_F(IncomingNoticesTest, AFileIsShownInItsFolderByAClick) {
    arrive("/home/ann/Downloads/a & b.jpg");
    EXPECT_THAT(screen(), ElementsAre("a & b.jpg from Pixel / 4.1 MB in Downloads"));
    EXPECT_EQ(last().category, "transfer.complete");
    EXPECT_EQ(last().actions, (Actions{{"open", "Open"}, {"show", "Show in folder"}}));
    EXPECT_EQ(last().clickLabel, "Show in folder");
    EXPECT_FALSE(last().isClickForWindow);
    press("default", "token-1");
    EXPECT_THAT(desktop_.take(), ElementsAre("show /home/ann/Downloads/a & b.jpg with token-1"));
    press("default"); // once more, as some desktops do
    EXPECT_THAT(desktop_.take(), IsEmpty());
    EXPECT_THAT(screen(), IsEmpty());
    pass(10s);
    for (const auto& [key, expected] : std::vector<std::pair<std::string, std::string>>{
             {"open", "open /home/ann/Downloads/c.jpg"}, {"show", "show /home/ann/Downloads/c.jpg"}}) {
        arrive("/home/ann/Downloads/c.jpg");
        press(key);
        EXPECT_THAT(desktop_.take(), ElementsAre(expected));
        pass(10s);
    }
}

TEST_F(IncomingNoticesTest, WhatCouldRunIsNotOfferedToBeOpened) {
    for (const char* name : {"game.desktop", "game.jar", "run.sh"}) {
        arrive(platform::Path("/home/ann/Downloads") / name);
        EXPECT_EQ(last().actions, (Actions{{"show", "Show in folder"}})) << name;
        pass(10s);
    }
}

TEST_F(IncomingNoticesTest, SeveralFilesAreOneNotificationThatGrows) {
    arrive("/home/ann/Downloads/1.jpg", 1'000'000);
    const std::uint64_t tag = last().tag;
    for (int i = 2; i <= 12; ++i) {
        pass(300ms);
        arrive("/home/ann/Downloads/" + std::to_string(i) + ".jpg", 1'000'000);
    }
    pass(2s);
    EXPECT_THAT(screen(), ElementsAre("12 files from Pixel / Downloads, 12 MB"));
    EXPECT_EQ(last().tag, tag);
    EXPECT_TRUE(last().isQuiet);
    EXPECT_LE(shown().size(), 6U) << "one a second, in 3.3 seconds and after";
    press("default");
    const std::vector<std::string> asked = desktop_.take();
    ASSERT_EQ(1U, asked.size());
    EXPECT_TRUE(asked.front().starts_with("show /home/ann/Downloads/1.jpg /home/ann/Downloads/2.jpg "));
    EXPECT_TRUE(asked.front().ends_with(" /home/ann/Downloads/12.jpg"));
    arrive("/home/ann/Downloads/late.jpg");
    EXPECT_THAT(screen(), ElementsAre("late.jpg from Pixel / 4.1 MB in Downloads"));
}

TEST_F(IncomingNoticesTest, FilesOfTwoPhonesAndFilesFarApartAreToldOfApart) {
    arrive("/home/ann/Downloads/a.jpg");
    arrive("/home/ann/Downloads/b.jpg", 2000, "Tablet", "BBBB");
    EXPECT_THAT(screen(),
                ElementsAre("a.jpg from Pixel / 4.1 MB in Downloads", "b.jpg from Tablet / 2.0 kB in Downloads"));
    pass(7s);
    arrive("/home/ann/Downloads/c.jpg");
    EXPECT_EQ(3U, screen().size());
    EXPECT_FALSE(last().isQuiet);
}

TEST_F(IncomingNoticesTest, AFileThatTakesLongIsToldOfAfterFiveSecondsAndThenOnceASecond) {
    transfers_ = {transfer(7, "film.mov")};
    look();
    pass(4900ms);
    EXPECT_THAT(shown(), IsEmpty());
    transfers_[0].bytes.done = 380;
    transfers_[0].bytesPerSecond = 8;
    pass(200ms);
    EXPECT_THAT(screen(), ElementsAre("Receiving film.mov from Pixel / 38 % · 1:18 left"));
    EXPECT_EQ(last().percent, 38);
    EXPECT_EQ(last().category, "transfer");
    EXPECT_TRUE(last().isResident);
    EXPECT_FALSE(last().isQuiet);
    EXPECT_TRUE(last().isClickForWindow);
    EXPECT_EQ(last().actions, (Actions{{"cancel", "Cancel"}}));
    for (int i = 0; i < 40; ++i) {
        transfers_[0].bytes.done += 10;
        world_.run(world_.clock.sleep(250ms));
        look();
    }
    EXPECT_GE(shown().size(), 10U);
    EXPECT_LE(shown().size(), 12U);
    EXPECT_TRUE(last().isQuiet);
    EXPECT_EQ(1U, screen().size());
    press("cancel");
    press("cancel");
    press("default", "token");
    EXPECT_THAT(requests_.all, ElementsAre("cancel 7", "cancel 7"));
    EXPECT_THAT(desktop_.take(), ElementsAre("raise with token"));
    transfers_[0].endedAt = world_.clock.now();
    look();
    EXPECT_THAT(screen(), IsEmpty()) << "it has come to nothing";
}

TEST_F(IncomingNoticesTest, AFileThatIsThereTakesThePlaceOfItsProgress) {
    transfers_ = {transfer(7, "film.mov"), transfer(8, "other.mov")};
    look();
    pass(6s);
    ASSERT_EQ(2U, screen().size());
    const std::uint64_t tag = shown()[0].notification.tag;
    transfers_[0].path = "/home/ann/Downloads/film.mov";
    transfers_[0].endedAt = world_.clock.now();
    arrive("/home/ann/Downloads/film.mov");
    EXPECT_EQ(last().title, "film.mov from Pixel");
    EXPECT_EQ(last().tag, tag);
    EXPECT_FALSE(last().isResident);
    transfers_[1].path = "/home/ann/Downloads/other.mov";
    transfers_[1].endedAt = world_.clock.now();
    arrive("/home/ann/Downloads/other.mov");
    pass(2s);
    EXPECT_THAT(screen(), ElementsAre("2 files from Pixel / Downloads, 8.2 MB"));
}

TEST_F(IncomingNoticesTest, ProgressThatSomebodyHasClosedStaysAwayAndTheEndIsToldAllTheSame) {
    transfers_ = {transfer(7, "film.mov")};
    look();
    pass(6s);
    press("");
    pass(5s);
    EXPECT_THAT(screen(), IsEmpty());
    transfers_[0].path = "/home/ann/Downloads/film.mov";
    transfers_[0].endedAt = world_.clock.now();
    arrive("/home/ann/Downloads/film.mov");
    EXPECT_THAT(screen(), ElementsAre("film.mov from Pixel / 4.1 MB in Downloads"));
}

TEST_F(IncomingNoticesTest, ProgressGoesWhenNotificationsAreSwitchedOff) {
    transfers_ = {transfer(7, "film.mov")};
    look();
    pass(6s);
    ASSERT_EQ(1U, screen().size());
    isOn_ = false;
    pass(2s);
    EXPECT_THAT(screen(), IsEmpty());
    isOn_ = true;
    pass(5s);
    EXPECT_THAT(screen(), IsEmpty()) << "as if somebody had closed it";
    transfers_[0].path = "/home/ann/Downloads/film.mov";
    transfers_[0].endedAt = world_.clock.now();
    arrive("/home/ann/Downloads/film.mov");
    EXPECT_THAT(screen(), ElementsAre("film.mov from Pixel / 4.1 MB in Downloads"));
}

TEST_F(IncomingNoticesTest, AJobGoesWhenNotificationsAreSwitchedOff) {
    jobs_.first = platform::JobView::State::shown;
    transfers_ = {transfer(7, "film.mov")};
    look();
    pass(6s);
    ASSERT_EQ(1U, jobs_.all.size());
    isOn_ = false;
    pass(2s);
    EXPECT_TRUE(jobs_.all[0]->isEnded);
    EXPECT_EQ(jobs_.all[0]->failure, "");
    EXPECT_THAT(shown(), IsEmpty());
}

TEST_F(IncomingNoticesTest, WhereJobsAreShownProgressIsAJobAndTheEndANotification) {
    jobs_.first = platform::JobView::State::asked;
    transfers_ = {transfer(7, "film.mov")};
    look();
    pass(5500ms);
    ASSERT_EQ(1U, jobs_.all.size());
    EXPECT_THAT(shown(), IsEmpty()) << "somebody may yet show it";
    jobs_.all[0]->state = platform::JobView::State::shown;
    transfers_[0].bytes.done = 380;
    transfers_[0].bytesPerSecond = 8;
    for (int i = 0; i < 40; ++i) {
        transfers_[0].bytes.done += 10;
        world_.run(world_.clock.sleep(250ms));
        look();
    }
    EXPECT_THAT(shown(), IsEmpty());
    const platform::Job& job = jobs_.all[0]->jobs.back();
    EXPECT_EQ(job.title, "Receiving film.mov from Pixel");
    EXPECT_EQ(job.bytes.total, 1000);
    EXPECT_EQ(job.bytesPerSecond, 8);
    EXPECT_EQ(job.folder, "/srv/AAAA");
    EXPECT_GE(job.percent, 74);
    EXPECT_LE(jobs_.all[0]->jobs.size(), 15U) << "once a second, but for those that nobody had answered for";
    jobs_.all[0]->onCancel();
    EXPECT_THAT(requests_.all, ElementsAre("cancel 7"));
    transfers_[0].path = "/home/ann/Downloads/film.mov";
    transfers_[0].state = TransferView::State::done;
    transfers_[0].endedAt = world_.clock.now();
    arrive("/home/ann/Downloads/film.mov");
    EXPECT_TRUE(jobs_.all[0]->isEnded);
    EXPECT_EQ(jobs_.all[0]->failure, "");
    EXPECT_THAT(screen(), ElementsAre("film.mov from Pixel / 4.1 MB in Downloads"));
}

TEST_F(IncomingNoticesTest, AJobThatFailsSaysSoAndOneThatNobodyShowsAnyMoreIsANotification) {
    jobs_.first = platform::JobView::State::shown;
    transfers_ = {transfer(7, "film.mov"), transfer(8, "other.mov")};
    look();
    pass(6s);
    ASSERT_EQ(2U, jobs_.all.size());
    transfers_[0].state = TransferView::State::failed;
    transfers_[0].problem = "wire: broken";
    transfers_[0].endedAt = world_.clock.now();
    jobs_.all[1]->state = platform::JobView::State::refused;
    pass(2s);
    EXPECT_EQ(jobs_.all[0]->failure, "The file did not arrive completely.");
    EXPECT_THAT(screen(), ElementsAre("Receiving other.mov from Pixel / 0 %"));
}

TEST_F(IncomingNoticesTest, LongNamesAreCutAndNothingInThemHides) {
    arrive("/home/ann/Downloads/" + std::string(200, 'x') + "\u202E.jpg", 1, std::string(100, 'p'));
    EXPECT_LE(last().title.size(), 2 * 60 + 30U);
    EXPECT_NE(last().title.find("\\u{202E}.jpg"), std::string::npos);
}

TEST_F(IncomingNoticesTest, AtTheEndProgressGoesAndWhatHasComeIsToldAtOnce) {
    transfers_ = {transfer(7, "film.mov")};
    look();
    pass(6s);
    Receiver::File file{.file = {}, .from = "Pixel", .peerKey = PeerKey("AAAA")};
    file.file.savedAt = "/home/ann/Downloads/a.jpg";
    file.file.bytesWritten = 1;
    notices_.fileReceived(file);
    notices_.stop();
    EXPECT_THAT(screen(), ElementsAre("a.jpg from Pixel / 1 byte in Downloads"));
    EXPECT_EQ(last().actions, (Actions{{"show", "Show in folder"}})) << "nobody has looked what it is";
    press("show");
    EXPECT_THAT(desktop_.take(), IsEmpty()) << "nobody is there to do it";
}

TEST_F(IncomingNoticesTest, WithoutADesktopNothingComesOfIt) {
    world_.notifications.available = false;
    transfers_ = {transfer(7, "film.mov")};
    look();
    pass(20s);
    EXPECT_EQ(1U, shown().size()) << "progress is not tried again";
    arrive("/home/ann/Downloads/a.jpg");
    EXPECT_EQ(2U, shown().size());
}

} // namespace
} // namespace orlinth::host
