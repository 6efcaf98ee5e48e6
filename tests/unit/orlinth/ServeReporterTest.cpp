#include "orlinth/Reporting/ServeReporter.h"

#include "OrlinthHost/Service/LastText.h"
#include "fakes/World.h"
#include "orlinth/Program/ServiceDesktop.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

namespace orlinth::cli {
namespace {

/// What people and scripts read of the service.
class ServeReporterTest : public testing::Test {
protected:
    ~ServeReporterTest() override {
        world_.run(reporter_.finish());
        fakes::runUntilIdle(world_.context, world_.clock);
    }

    void letAlarmRing() {
        ASSERT_TRUE(world_.clock.advanceToNextAlarm());
        world_.context.restart();
        world_.context.poll();
    }

    fakes::World world_;
    TaskRunner tasks_{world_.context};
    Output output_;
    Host host_{world_.system, tasks_, output_};
    ServiceDesktop desktop_{host_};
    const PeerKey tablet_{"tablet"};
    host::DesktopNotices notices_{host::NoticeBoard(host_, nullptr, {}), desktop_, {.of = [this](const PeerKey& phone) {
                                      return platform::Path(phone == tablet_ ? "/srv/tablet" : "/srv/rest");
                                  }}};
    ServeReporter reporter_{host_, desktop_, notices_, {}};
};

/// What is written to standard error meanwhile, as lines.
std::vector<std::string> linesOf(const std::function<void()>& action) {
    testing::internal::CaptureStderr();
    action();
    std::istringstream written(testing::internal::GetCapturedStderr());
    std::vector<std::string> lines;
    for (std::string line; std::getline(written, line);) {
        lines.push_back(line);
    }
    return lines;
}

TEST_F(ServeReporterTest, TellsOnceThatANameIsKeptApart) {
    const Receiver::SetName kept{.name = "Pixel", .from = "Tablet", .calledHere = "Pixel (2)"};
    testing::internal::CaptureStdout();
    reporter_.settled(kept);
    reporter_.settled(Receiver::NameUpdate{.name = "Pixel", .from = "Pixel (2)", .calledHere = "Pixel (2)"});
    reporter_.settled(Receiver::NameUpdate{.name = "Phone", .from = "Pixel (2)", .calledHere = "Phone"});
    EXPECT_EQ("Tablet wants to be called 'Pixel', as another phone is; it is now called Pixel (2)\n"
              "Pixel (2) is now called Phone\n",
              testing::internal::GetCapturedStdout());
    output_.useJson();
    testing::internal::CaptureStdout();
    reporter_.settled(kept);
    EXPECT_EQ("{\"called\":\"Pixel (2)\",\"event\":\"set_name\",\"from\":\"Tablet\",\"name\":\"Pixel\"}\n",
              testing::internal::GetCapturedStdout());
}

// ---- texts

Receiver::Clipboard textOf(const std::string& text, const std::string& phone = "key") {
    return {.text = text, .mime = "text/plain", .from = "Pixel", .peerKey = PeerKey(phone)};
}

TEST_F(ServeReporterTest, WritesTheNewestOfTheTextsThatHaveCome) {
    for (const char* text : {"one", "two", "three"}) {
        reporter_.textReceived(textOf(text));
    }
    fakes::runUntilIdle(world_.context, world_.clock);
    EXPECT_EQ(1, world_.clipboard.textWrites);
    EXPECT_EQ("three", world_.clipboard.text());
    reporter_.textReceived(textOf("four"));
    world_.run(reporter_.finish());
    EXPECT_EQ("four", world_.clipboard.text());
}

TEST_F(ServeReporterTest, SaysWhereATextIsThatDidNotReachTheClipboard) {
    world_.clipboard.hasSession = false;
    const auto linesFor = [this](const std::string& text) {
        return linesOf([&] {
            reporter_.textReceived(textOf(text));
            fakes::runUntilIdle(world_.context, world_.clock);
        });
    };
    const std::string problem = "cannot write the clipboard: there is no desktop session";
    EXPECT_EQ(linesFor("correct horse"),
              (std::vector<std::string>{problem, "To print the last text: `orlinth clip --last`"}));
    EXPECT_EQ(linesFor(std::string(host::LastText::maxBytes, 'x')),
              (std::vector<std::string>{problem, "To print the last text: `orlinth clip --last`"}));
    EXPECT_EQ(linesFor(std::string(host::LastText::maxBytes + 1, 'x')),
              (std::vector<std::string>{problem, "The text is too long to be kept (over 1 MiB)."}));
    EXPECT_EQ(linesFor(""), std::vector<std::string>{problem});
}

// ---- lines

Receiver::Failure failureOf(const std::string& phone) {
    return {.error = std::make_exception_ptr(ReceiveError::wire("broken")),
            .remoteEndpoint = "192.168.1.7:1",
            .from = "Pixel",
            .peerKey = PeerKey(phone)};
}

TEST_F(ServeReporterTest, ShowsTheFolderOfThePhoneWhoseFileCannotBeSaved) {
    const auto shownAfter = [this](ReceiveError error, const PeerKey& phone) {
        world_.notifications.shown.clear();
        Receiver::Failure failure = failureOf(phone.text());
        failure.error = std::make_exception_ptr(std::move(error));
        static_cast<void>(linesOf([&] { reporter_.connectionFailed(failure); }));
        return world_.notifications.shown.empty() ? "" : world_.notifications.shown.front().notification.body;
    };
    EXPECT_EQ("", shownAfter(ReceiveError::wire("broken"), tablet_));
    EXPECT_EQ("", shownAfter(ReceiveError::fileNotTaken("another receiver is writing a.txt.partial"), tablet_))
        << "nothing is wrong with the folder";
    EXPECT_EQ("Files cannot be saved in /srv/tablet. Check that it can be written to, and that the disk is not full.",
              shownAfter(ReceiveError::fileWriteFailed("No space left on device"), tablet_));
}

TEST_F(ServeReporterTest, ShowsAFolderThatCannotBeWrittenAtTheStart) {
    EXPECT_EQ((std::vector<std::string>{
                  "orlinth: cannot write to /srv/old",
                  "Files that go there fail until the folder is writable, or until you choose another one."}),
              linesOf([this] { reporter_.folderUnusable("/srv/old", "cannot write to /srv/old"); }));
    ASSERT_EQ(1U, world_.notifications.shown.size());
    EXPECT_TRUE(world_.notifications.shown[0].notification.body.starts_with("Files cannot be saved in /srv/old."));
}

TEST_F(ServeReporterTest, OnePhoneGetsSomeLinesAMinuteAndThenTheirNumber) {
    const auto failures = [this](const std::string& phone, int count) {
        return linesOf([&] {
            for (int i = 0; i < count; ++i) {
                reporter_.connectionFailed(failureOf(phone));
            }
        });
    };
    const auto isFailure = [](const std::string& line) { return line == "orlinth: wire: broken"; };
    EXPECT_EQ(limits::linesOfOnePhone, std::ranges::count_if(failures("key 1", 1000), isFailure));
    EXPECT_EQ(3, std::ranges::count_if(failures("key 2", 3), isFailure)) << "another phone is not concerned";
    EXPECT_TRUE(linesOf([&] {
                    reporter_.settled(Receiver::SetName{
                        .name = "x", .from = "Pixel", .isTakenOver = true, .peerKey = PeerKey("key 1")});
                }).empty());
    const std::vector<std::string> minute = linesOf([&] { letAlarmRing(); });
    EXPECT_EQ((std::vector<std::string>{"Pixel: 981 more lines were left out"}), minute);
}

TEST_F(ServeReporterTest, AClipboardThatCannotBeWrittenIsAFewLinesAMinuteAndThenTheirNumber) {
    constexpr const char* reason = "cannot write the clipboard: there is no desktop session";
    constexpr const char* more = "the clipboard could not be written 195 more times";
    world_.clipboard.hasSession = false;
    const std::vector<std::string> lines = linesOf([&] {
        for (int i = 0; i < 200; ++i) {
            reporter_.textReceived(textOf("text " + std::to_string(i)));
            world_.context.restart();
            world_.context.poll(); // so that each is written before the next one comes
        }
        world_.run(reporter_.finish());
    });
    EXPECT_EQ(limits::linesOfStrangers, std::ranges::count(lines, reason));
    EXPECT_EQ(1, std::ranges::count(lines, more));
    const std::vector<std::string> log = world_.log.messages();
    EXPECT_EQ(limits::linesOfStrangers, std::ranges::count(log, reason));
    EXPECT_EQ(1, std::ranges::count(log, more));
}

TEST_F(ServeReporterTest, APhoneThatIsNotForgottenGetsNoMoreLinesThanOthers) {
    constexpr int count = 1000;
    Receiver::Unpair unpair{.from = "Pixel", .peerKey = PeerKey("key 1"), .isForgotten = false};
    testing::internal::CaptureStdout();
    for (int i = 0; i < count; ++i) {
        reporter_.settled(unpair);
    }
    const std::string kept = testing::internal::GetCapturedStdout();
    EXPECT_EQ(limits::linesOfOnePhone, std::ranges::count(kept, '\n'));
    unpair.isForgotten = true;
    testing::internal::CaptureStdout();
    reporter_.settled(unpair);
    EXPECT_EQ("Pixel has removed this computer, and is forgotten here\n", testing::internal::GetCapturedStdout())
        << "however much was said before";
}

TEST_F(ServeReporterTest, OfThoseWhoComeFromAfarAFewLinesAreWritten) {
    const std::vector<std::string> lines = linesOf([&] {
        for (int i = 0; i < 1000; ++i) {
            reporter_.turnedAway("203.0.113.9:" + std::to_string(i));
        }
        world_.run(reporter_.finish());
    });
    EXPECT_EQ(limits::linesOfStrangers,
              std::ranges::count(lines, "orlinth: closed a connection from outside your networks"));
    EXPECT_EQ("orlinth: 995 more connections came from outside your networks", lines.back());
}

TEST_F(ServeReporterTest, CountsASingleConnectionAsOne) {
    Receiver::Failure stranger = failureOf("");
    stranger.from.clear();
    const std::vector<std::string> lines = linesOf([&] {
        for (int i = 0; i <= limits::linesOfStrangers; ++i) {
            reporter_.turnedAway("203.0.113.9:1");
            reporter_.connectionFailed(stranger);
        }
        world_.run(reporter_.finish());
    });
    EXPECT_EQ(1, std::ranges::count(lines, "orlinth: 1 more connection came from outside your networks"));
    EXPECT_EQ(1, std::ranges::count(lines, "orlinth: 1 more connection failed that was of no paired phone"));
}

TEST_F(ServeReporterTest, SaysWhichChoicesAnInheritedPortMakesVain) {
    const std::string port = "the service manager has opened port 7100; --port is not used";
    const std::string places = "the service manager has opened the port; --listen is not used";
    using Lines = std::vector<std::string>;
    const auto said = [this](const ServeReporter::Choices& choices) {
        ServiceDesktop desktop(host_);
        ServeReporter reporter(host_, desktop, notices_, choices);
        Lines lines = linesOf([&] { reporter.portInherited(7100); });
        world_.run(reporter.finish());
        return lines;
    };
    EXPECT_EQ(Lines{}, said({}));
    EXPECT_EQ(Lines{}, said({.port = 7100})) << "it is the one that was chosen";
    EXPECT_EQ(Lines{port}, said({.port = 28471}));
    EXPECT_EQ(Lines{places}, said({.choosesPlaces = true}));
    EXPECT_EQ((Lines{port, places}), said({.port = 0, .choosesPlaces = true}));
}

TEST_F(ServeReporterTest, SaysWhereItListensAndIfThereIsNobodyToReceiveFrom) {
    using Lines = std::vector<std::string>;
    EXPECT_EQ(Lines{}, linesOf([this] { reporter_.phonesKnown(1); }));
    EXPECT_EQ(Lines{"No phone is paired yet. `orlinth pair` pairs one, also while this runs."},
              linesOf([this] { reporter_.phonesKnown(0); }));
    EXPECT_EQ(Lines{"listening on port 7100"}, linesOf([this] { reporter_.listening(7100, 1); }));
    output_.useJson();
    testing::internal::CaptureStdout();
    EXPECT_EQ(Lines{"listening on port 7100"}, linesOf([this] { reporter_.listening(7100, 1); }));
    EXPECT_EQ("{\"event\":\"listening\",\"port\":7100}\n", testing::internal::GetCapturedStdout());
}

TEST_F(ServeReporterTest, SaysHowMuchIsUnfinishedAndHowToGetRidOfIt) {
    using Lines = std::vector<std::string>;
    EXPECT_EQ(Lines{"1 unfinished download (1.5 kB) in /home/ann/Downloads has not changed for a week. To see or "
                    "remove it: `orlinth partials`"},
              linesOf([this] { reporter_.unfinishedDownloads({.count = 1, .bytes = 1500}, "/home/ann/Downloads"); }));
    output_.useJson();
    testing::internal::CaptureStdout();
    EXPECT_EQ(Lines{"2 unfinished downloads (1.5 kB) in /home/ann/Downloads have not changed for a week. To see or "
                    "remove them: `orlinth partials`"},
              linesOf([this] { reporter_.unfinishedDownloads({.count = 2, .bytes = 1500}, "/home/ann/Downloads"); }));
    EXPECT_EQ("{\"bytes\":1500,\"count\":2,\"dir\":\"/home/ann/Downloads\",\"event\":\"unfinished_downloads\"}\n",
              testing::internal::GetCapturedStdout());
}

} // namespace
} // namespace orlinth::cli
