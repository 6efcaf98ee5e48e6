#include "OrlinthHost/Service/History.h"

#include "fakes/CrashTrials.h"
#include "fakes/MemoryFileSystem.h"
#include "fakes/RecordingLog.h"
#include "fakes/VirtualClock.h"
#include "platform/SystemError.h"

#include <asio/io_context.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

namespace orlinth::host {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class HistoryTest : public testing::Test {
protected:
    [[nodiscard]] History historyOn(platform::FileSystem& disk) { return {disk, clock, log, folder}; }
    [[nodiscard]] EpochMilliseconds now() const { return clock.epochMilliseconds(); }
    [[nodiscard]] HistoryEntry entry(const std::string& name) const {
        return {.time = now(),
                .direction = HistoryEntry::Direction::in,
                .phone = "Pixel 8",
                .peerKey = PeerKey("hSDwCYkwp1R0i33ctD73Wg2/Og0mOBr066SpjqqbTmo="),
                .file = name,
                .size = 4100000,
                .path = "/home/ann/Downloads/" + name};
    }
    [[nodiscard]] HistoryEntry entryAt(const std::string& name, EpochMilliseconds time) const {
        HistoryEntry made = entry(name);
        made.time = time;
        return made;
    }
    static std::vector<std::string> namesOf(const std::vector<HistoryEntry>& entries) {
        std::vector<std::string> names;
        for (const HistoryEntry& one : entries) {
            names.push_back(one.file);
        }
        return names;
    }
    [[nodiscard]] std::vector<std::string> names() { return namesOf(history.load()); }
    [[nodiscard]] std::string content() { return files.content(file).value_or(""); }
    [[nodiscard]] static std::ptrdiff_t lines(const std::string& text) { return std::ranges::count(text, '\n'); }

    const platform::Path folder = "/home/ann/data";
    const platform::Path file = folder / History::fileName;
    fakes::MemoryFileSystem files;
    asio::io_context context;
    fakes::VirtualClock clock{context};
    fakes::RecordingLog log;
    History history = historyOn(files);
};

TEST_F(HistoryTest, HasWhatCameAndWentWithTheNewestLast) {
    EXPECT_THAT(history.load(), IsEmpty());
    const HistoryEntry first = entry("a.jpg");
    HistoryEntry second = entry("b.pdf");
    second.direction = HistoryEntry::Direction::out;
    second.outcome = HistoryEntry::Outcome::failed;
    second.problem = "network: connect timed out";
    second.path = "";
    history.add(first);
    history.add(second);
    EXPECT_THAT(historyOn(files).load(), ElementsAre(first, second));
    EXPECT_EQ(files.status(file)->permissions, 0600U);
    EXPECT_EQ(files.status(folder)->permissions, 0700U);
    EXPECT_EQ(content(), History::encode(first) + "\n" + History::encode(second) + "\n");
}

TEST_F(HistoryTest, IsClearedAndGoesOn) {
    history.clear(); // nothing, not even the folder
    history.add(entry("a"));
    history.clear();
    EXPECT_EQ(files.status(file), std::nullopt);
    EXPECT_THAT(history.load(), IsEmpty());
    history.add(entry("b"));
    EXPECT_THAT(names(), ElementsAre("b"));
}

TEST_F(HistoryTest, IsClearedThoughItsFolderCannotBeFlushed) {
    history.add(entry("a"));
    files.addFault({.operation = fakes::Operation::flushDirectory, .errorNumber = EIO});
    EXPECT_NO_THROW(history.clear());
    EXPECT_EQ(files.status(file), std::nullopt);
}

TEST_F(HistoryTest, OfSomebodyElseIsNotCleared) {
    files.putFolder(file);
    EXPECT_THROW(history.clear(), platform::SystemError);
    EXPECT_TRUE(files.status(file).has_value());
}

TEST_F(HistoryTest, SkipsWhatMakesNoSense) {
    const std::string good = History::encode(entry("good"));
    const auto with = [&good](const std::string& from, const std::string& to) {
        std::string line = good;
        return line.replace(line.find(from), from.size(), to);
    };
    std::string text = "\n" + good.substr(0, good.size() / 2) + "\n{}\n[]\nnull\n\xff\xfe\n" + good + "\r\n";
    for (const std::string& line :
         {with("\"in\"", "\"up\""), with("\"done\"", "7"), with("4100000", "-1"), with("\"time\":", "\"time\":-"),
          with("\"time\":", "\"time\":999"), with("\"phone\"", "\"fone\""), std::string(History::maxLineBytes, 'x'),
          std::string(1000, '[')}) {
        text += line + "\n";
    }
    EXPECT_THAT(namesOf(History::decodeAll(text + good, now())), ElementsAre("good", "good"));
    EXPECT_THAT(History::decodeAll("", now()), IsEmpty());
    EXPECT_THAT(History::decodeAll("\n\n\n", now()), IsEmpty());
}

TEST_F(HistoryTest, GoesOnBehindALineThatAKillHasCut) {
    history.add(entry("a"));
    std::string cut = content();
    cut.resize(cut.size() - 9);
    files.put(file, cut, 0600);
    History next = historyOn(files);
    next.add(entry("b"));
    next.add(entry("c"));
    EXPECT_THAT(names(), ElementsAre("b", "c"));
}

TEST_F(HistoryTest, LosesAtMostTheLastEntryIfTheServiceIsKilled) {
    const HistoryEntry added = entry("new");
    const auto prepare = [this](fakes::MemoryFileSystem& disk) {
        History old = historyOn(disk);
        old.add(entry("a"));
        old.add(entry("b"));
    };
    const auto scenario = [&](fakes::MemoryFileSystem& disk) {
        historyOn(disk).add(added); // which swallows the failure
    };
    fakes::forEveryCrash(prepare, scenario, [this](const fakes::Aftermath& after) {
        if (after.kind != fakes::CrashKind::processKill) {
            return; // nothing is flushed: a power cut may take more
        }
        History next = historyOn(after.files);
        next.add(entry("c"));
        std::vector<std::string> left = namesOf(next.load());
        std::erase(left, "new");
        EXPECT_THAT(left, ElementsAre("a", "b", "c"));
    });
}

TEST_F(HistoryTest, IsCutBackToAThousandEntries) {
    for (std::size_t i = 0; i < History::maxEntries + History::slack - 1; ++i) {
        history.add(entry(std::to_string(i)));
    }
    EXPECT_THAT(names(), SizeIs(History::maxEntries));
    EXPECT_EQ(names().front(), "99");
    const std::size_t before = files.count(fakes::Operation::rename);
    history.add(entry("last"));
    EXPECT_EQ(files.count(fakes::Operation::rename), before + 1);
    EXPECT_EQ(lines(content()), static_cast<std::ptrdiff_t>(History::maxEntries));
    EXPECT_EQ(names().front(), "100");
    EXPECT_EQ(names().back(), "last");
    EXPECT_EQ(files.status(file)->permissions, 0600U);
    history.add(entry("one more"));
    EXPECT_EQ(files.count(fakes::Operation::rename), before + 1) << "an entry is one write, not a whole file";
}

TEST_F(HistoryTest, ForgetsWhatIsOlderThanNinetyDays) {
    history.add(entryAt("old", now() - History::maxAge - 2 * std::chrono::days(1)));
    history.add(entryAt("nearly", now() - History::maxAge + 1min));
    history.add(entry("new"));
    EXPECT_THAT(names(), ElementsAre("nearly", "new"));
    EXPECT_THAT(content(), testing::Not(HasSubstr("\"old\"")));
}

TEST_F(HistoryTest, KeepsEntriesAndTheirOrderIfTheClockIsSetBack) {
    history.add(entryAt("before", now() + std::chrono::days(4000)));
    history.add(entry("after"));
    History next = historyOn(files);
    next.add(entry("later"));
    EXPECT_THAT(names(), ElementsAre("before", "after", "later"));
}

TEST_F(HistoryTest, ReadsOnlyTheEndOfAHugeFileAndCutsItBack) {
    const std::string huge(History::maxFileBytes + 1000, 'x');
    files.put(file, huge + "\n" + History::encode(entry("a")) + "\n", 0600);
    EXPECT_THAT(names(), ElementsAre("a"));
    history.add(entry("b"));
    EXPECT_THAT(names(), ElementsAre("a", "b"));
    EXPECT_EQ(lines(content()), 2);
}

TEST_F(HistoryTest, BoundsItsLinesWhateverAPhoneSays) {
    HistoryEntry odd = entry(std::string(100000, '\x01'));
    odd.phone = std::string(5000, '\xff');
    odd.problem = std::string(100000, '\x02');
    odd.path = std::string(100000, '\x03');
    const std::string line = History::encode(odd);
    EXPECT_LE(line.size(), History::maxLineBytes);
    ASSERT_TRUE(History::decode(line));
    EXPECT_EQ(History::encode(*History::decode(line)), line);
    history.add(odd);
    history.add(entry("a\nb"));
    EXPECT_EQ(lines(content()), 2);
    EXPECT_THAT(names(), SizeIs(2));
}

TEST_F(HistoryTest, LeavesAloneWhatIsNotItsOwn) {
    files.put("/home/ann/secret", "secret");
    files.createDirectories(folder, 0700);
    files.putLink(file, "/home/ann/secret");
    history.add(entry("a"));
    EXPECT_EQ(files.content("/home/ann/secret"), "secret");
    EXPECT_THAT(log.messages(), ElementsAre(HasSubstr("cannot write the history")));
    files.remove(file);
    files.putSecondName(file, "/home/ann/secret");
    history.add(entry("a"));
    EXPECT_EQ(files.content("/home/ann/secret"), "secret");
    EXPECT_THAT(history.load(), IsEmpty());
}

TEST_F(HistoryTest, LogsOnceThatItCannotBeWrittenAndGoesOnWhenItCan) {
    files.addFault({.operation = fakes::Operation::write, .errorNumber = ENOSPC, .nameEnding = History::fileName});
    history.add(entry("a"));
    history.add(entry("b"));
    EXPECT_THAT(log.messages(), SizeIs(1));
    files.clearFaults();
    history.add(entry("c"));
    EXPECT_THAT(names(), ElementsAre("c"));
}

TEST_F(HistoryTest, ThatCannotBeReadIsAnError) {
    history.add(entry("a"));
    files.addFault({.operation = fakes::Operation::open, .errorNumber = EACCES, .nameEnding = History::fileName});
    EXPECT_THROW(static_cast<void>(history.load()), platform::SystemError);
}

} // namespace
} // namespace orlinth::host
