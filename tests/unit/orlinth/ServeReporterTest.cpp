#include "orlinth/Reporting/ServeReporter.h"

#include "OrlinthHost/Service/LastText.h"
#include "fakes/TemporaryFolder.h"
#include "fakes/World.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <thread>

namespace orlinth::cli {
namespace {

using fakes::TemporaryFolder;

/// What a desktop is told, and what its buttons do.
class ServeReporterTest : public testing::Test {
protected:
    ~ServeReporterTest() override {
        world_.run(reporter_.finish());
        fakes::runUntilIdle(world_.context, world_.clock);
    }

    [[nodiscard]] static Receiver::File file(const std::filesystem::path& savedAt) {
        Receiver::File received{.file = {}, .from = "Pixel <8>"};
        received.file.savedAt = savedAt;
        received.file.bytesWritten = received.file.advertisedSize = 3;
        return received;
    }

    void letBurstPass() {
        ASSERT_TRUE(world_.clock.advanceToNextAlarm());
        world_.context.restart();
        world_.context.poll();
    }

    [[nodiscard]] std::vector<fakes::FakeNotifications::Shown>& shown() { return world_.notifications.shown; }

    fakes::World world_;
    TaskRunner tasks_{world_.context};
    Output output_;
    Host host_{world_.system, tasks_, output_};
    ServeReporter reporter_{host_, {}};
};

/// While it lives, the program of the desktop that opens files writes down what it was asked to open.
class FakeOpener {
public:
    FakeOpener() {
        fakes::writeText(folder_ / "xdg-open", "#!/bin/sh\nprintf %s \"$1\" >\"" + log().string() + ".new\" && mv \"" +
                                                   log().string() + ".new\" \"" + log().string() + "\"\n");
        ::chmod((folder_ / "xdg-open").c_str(), 0755);
        ::setenv("PATH", (folder_.path().string() + ":" + before_).c_str(), 1);
    }
    ~FakeOpener() { ::setenv("PATH", before_.c_str(), 1); }
    FakeOpener(const FakeOpener&) = delete;
    FakeOpener& operator=(const FakeOpener&) = delete;

    /// What was opened; waits for it. It is started in the background, so nothing else tells.
    [[nodiscard]] std::string opened() const {
        for (int i = 0; i < 3000 && !std::filesystem::exists(log()); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return fakes::readText(log());
    }

    [[nodiscard]] bool hasOpened() const { return std::filesystem::exists(log()); }

private:
    [[nodiscard]] std::filesystem::path log() const { return folder_ / "opened"; }

    TemporaryFolder folder_;
    std::string before_ = std::getenv("PATH");
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

TEST_F(ServeReporterTest, ShowsAFileThatHasCome) {
    reporter_.fileReceived(file("/home/ann/Downloads/a & b.txt"));
    ASSERT_EQ(1U, shown().size());
    EXPECT_EQ("File from Pixel <8>", shown()[0].notification.title);
    EXPECT_EQ("a & b.txt", shown()[0].notification.body);
    EXPECT_EQ((std::vector<std::pair<std::string, std::string>>{{"open", "Open"}, {"show", "Show in folder"}}),
              shown()[0].notification.actions);
}

TEST_F(ServeReporterTest, OpensTheFileOrItsFolderWithTheDesktopsOwnProgram) {
    const std::vector<std::pair<std::string, std::string>> answers{{"open", "/home/ann/Downloads/a b.txt"},
                                                                   {"show", "/home/ann/Downloads"}};
    for (const auto& [key, path] : answers) {
        const FakeOpener opener;
        reporter_.fileReceived(file("/home/ann/Downloads/a b.txt"));
        world_.notifications.answer(shown().size() - 1, key);
        fakes::runUntilIdle(world_.context, world_.clock); // and lets the burst pass
        EXPECT_EQ(path, opener.opened());
    }
}

TEST_F(ServeReporterTest, TellsTwoPhonesApartWhoseNamesLookAlike) {
    PeerBook book;
    for (const auto& [key, name] :
         {std::pair("AAAAAAAAAAAAAAAA", "Pixel <8>"), std::pair("BBBBBBBBBBBBBBBB", "pixel <8> ")}) {
        PeerRecord record = world_.phoneRecord();
        record.peer_pubkey = PeerKey(key);
        record.peer_hostname = name;
        book.peers.push_back(record);
    }
    host_.peers().writeBook(book);
    Receiver::File received = file("/home/ann/Downloads/a.txt");
    received.peerKey = PeerKey("BBBBBBBBBBBBBBBB");
    reporter_.fileReceived(received);
    reporter_.textReceived(
        {.text = "correct horse", .mime = "text/plain", .from = "Pixel <8>", .peerKey = PeerKey("AAAAAAAAAAAAAAAA")});
    letBurstPass(); // of the file
    letBurstPass(); // of the text
    reporter_.textReceived(
        {.text = "correct horse", .mime = "text/plain", .from = "Tablet", .peerKey = PeerKey("CCCC")});
    ASSERT_EQ(3U, shown().size());
    EXPECT_EQ("File from Pixel <8> (key BBBBBBBBBBBB)", shown()[0].notification.title);
    EXPECT_EQ("Text from Pixel <8> (key AAAAAAAAAAAA)", shown()[1].notification.title);
    EXPECT_EQ("Text from Tablet", shown()[2].notification.title);
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

TEST_F(ServeReporterTest, SaysOfATextHowLongItIsAndNotWhatItSays) {
    reporter_.textReceived({.text = "correct horse", .mime = "text/plain", .from = "Pixel"});
    ASSERT_EQ(1U, shown().size());
    EXPECT_EQ("Text from Pixel", shown()[0].notification.title);
    EXPECT_EQ("13 bytes of text", shown()[0].notification.body);
    EXPECT_TRUE(shown()[0].notification.actions.empty());
}

TEST_F(ServeReporterTest, DoesWithoutADesktop) {
    world_.notifications.available = false;
    reporter_.fileReceived(file("/home/ann/Downloads/a.txt"));
    reporter_.textReceived({.text = "correct horse", .mime = "text/plain", .from = "Pixel"});
    EXPECT_EQ(2U, shown().size()); // and nothing has come of it
}

TEST_F(ServeReporterTest, ShowsManyFilesAsOne) {
    for (const char* name : {"a.jpg", "b.jpg", "c.jpg"}) {
        reporter_.fileReceived(file(std::filesystem::path("/home/ann/Downloads") / name));
    }
    EXPECT_EQ(1U, shown().size());
    letBurstPass();
    ASSERT_EQ(2U, shown().size());
    EXPECT_EQ(ServeReporter::burstTime.count(), world_.clock.elapsed());
    EXPECT_EQ("2 more files, the last one c.jpg", shown()[1].notification.body);
    reporter_.fileReceived(file("/home/ann/Downloads/d.jpg"));
    letBurstPass();
    EXPECT_EQ(3U, shown().size());
    letBurstPass();
    EXPECT_EQ(0U, world_.clock.pendingAlarms());
    reporter_.fileReceived(file("/home/ann/Downloads/e.jpg"));
    ASSERT_EQ(4U, shown().size());
    EXPECT_EQ("e.jpg", shown()[3].notification.body);
}

TEST_F(ServeReporterTest, IsNotAskedToOpenAnythingOnceItIsGone) {
    {
        ServeReporter other(host_, {.writesClipboard = [] { return false; }});
        other.fileReceived(file("/home/ann/Downloads/a.txt"));
        world_.run(other.finish());
    }
    const FakeOpener opener;
    world_.notifications.answer(0, "open");
    fakes::runUntilIdle(world_.context, world_.clock);
    EXPECT_FALSE(opener.hasOpened());
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

TEST_F(ServeReporterTest, ShowsManyTextsAsOne) {
    for (const char* text : {"one", "two", "three"}) {
        reporter_.textReceived(textOf(text));
    }
    ASSERT_EQ(1U, shown().size());
    letBurstPass();
    ASSERT_EQ(2U, shown().size());
    EXPECT_EQ(ServeReporter::burstTime.count(), world_.clock.elapsed());
    EXPECT_EQ("Texts from your phones", shown()[1].notification.title);
    EXPECT_EQ("2 more texts", shown()[1].notification.body);
    reporter_.fileReceived(file("/home/ann/Downloads/a.txt"));
    EXPECT_EQ(3U, shown().size()) << "a file is told of all the same";
}

// ---- lines

Receiver::Failure failureOf(const std::string& phone) {
    return {.error = std::make_exception_ptr(ReceiveError::wire("broken")),
            .remoteEndpoint = "192.168.1.7:1",
            .from = "Pixel",
            .peerKey = PeerKey(phone)};
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
    const std::vector<std::string> minute = linesOf([&] { letBurstPass(); });
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

TEST_F(ServeReporterTest, ShowsNothingOnTheDesktopWhileThatIsSwitchedOff) {
    bool isOn = false;
    ServeReporter reporter(host_,
                           {.writesClipboard = [] { return false; }, .showsNotifications = [&] { return isOn; }});
    static_cast<void>(linesOf([&] {
        reporter.fileReceived(file("/home/ann/a.jpg"));
        reporter.textReceived({.text = "a text", .mime = "text/plain", .from = "Pixel 8"});
    }));
    EXPECT_TRUE(shown().empty());
    isOn = true;
    static_cast<void>(linesOf([&] {
        reporter.fileReceived(file("/home/ann/b.jpg"));
        reporter.textReceived({.text = "a text", .mime = "text/plain", .from = "Pixel 8"});
    }));
    EXPECT_EQ(2U, shown().size());
    world_.run(reporter.finish());
}

TEST_F(ServeReporterTest, SaysWhichChoicesAnInheritedPortMakesVain) {
    const std::string port = "the service manager has opened port 7100; --port is not used";
    const std::string places = "the service manager has opened the port; --listen is not used";
    using Lines = std::vector<std::string>;
    const auto said = [this](const ServeReporter::Choices& choices) {
        ServeReporter reporter(host_, choices);
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
