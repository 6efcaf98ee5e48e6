#include "OrlinthHost/Service/History.h"
#include "unit/orlinth/CommandWorld.h"

namespace orlinth::cli {
namespace {

using host::HistoryEntry;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class HistoryCommandTest : public CommandWorldTest {
protected:
    Ended history(std::vector<std::string> words = {}) {
        words.insert(words.begin(), "history");
        return run(makeHistoryCommand, words);
    }
    void fill() {
        host::History written(world.files, world.clock, world.log, dataFolder);
        HistoryEntry entry{.time = world.clock.epochMilliseconds(),
                           .phone = "Pixel-8",
                           .peerKey = world.phoneRecord().peer_pubkey,
                           .file = "a.jpg",
                           .size = 4100000,
                           .path = "/home/ann/Downloads/a.jpg"};
        written.add(entry);
        entry.direction = HistoryEntry::Direction::out;
        entry.file = "odd\x1b[31m.pdf";
        entry.outcome = HistoryEntry::Outcome::failed;
        entry.problem = "network: connect timed out";
        entry.path = "";
        written.add(entry);
    }
};

TEST_F(HistoryCommandTest, ListsWhatCameAndWentWithTheNewestLast) {
    fill();
    const Ended ended = history();
    EXPECT_EQ(ended.status, 0);
    EXPECT_THAT(ended.output, HasSubstr("  from Pixel-8  a.jpg "));
    EXPECT_THAT(ended.output, HasSubstr("  4.1 MB  done\n"));
    EXPECT_THAT(ended.output, HasSubstr("  failed: network: connect timed out\n"));
    EXPECT_LT(ended.output.find("from Pixel-8"), ended.output.find("to Pixel-8"));
    EXPECT_EQ(ended.output.find('\x1b'), std::string::npos);
    EXPECT_THAT(ended.errors, IsEmpty());
}

TEST_F(HistoryCommandTest, ShowsTheSameToScripts) {
    fill();
    const std::vector<Json> events = history({"--json"}).events();
    ASSERT_EQ(events.size(), 2U);
    EXPECT_EQ(events[0], Json({{"event", "transfer"},
                               {"time_epoch_ms", toNumber(world.clock.epochMilliseconds())},
                               {"direction", "in"},
                               {"phone", "Pixel-8"},
                               {"peer_pubkey", world.phoneRecord().peer_pubkey.text()},
                               {"file", "a.jpg"},
                               {"size", 4100000},
                               {"outcome", "done"},
                               {"problem", ""},
                               {"path", "/home/ann/Downloads/a.jpg"}}));
    EXPECT_EQ(events[1].at("problem"), "network: connect timed out");
}

TEST_F(HistoryCommandTest, ListsOnlyTheNewestIfAsked) {
    fill();
    EXPECT_EQ(history({"--json", "--last", "1"}).events().at(0).at("direction"), "out");
    EXPECT_EQ(history({"--json", "--last", "7"}).events().size(), 2U);
    for (const char* count : {"0", "-1", "x", "1001"}) {
        EXPECT_EQ(history({"--last", count}).status, 2) << count;
    }
}

TEST_F(HistoryCommandTest, SaysThatThereIsNothingYet) {
    const Ended ended = history();
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.output, "");
    EXPECT_THAT(ended.errors, ElementsAre("The history is empty. `orlinth serve` writes it."));
}

TEST_F(HistoryCommandTest, SaysWhatToDoIfItCannotBeRead) {
    fill();
    world.files.addFault(
        {.operation = fakes::Operation::open, .errorNumber = EACCES, .nameEnding = host::History::fileName});
    const Ended ended = history();
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.failure(), "orlinth: cannot read the history: Permission denied");
    EXPECT_THAT(ended.errors.back(), HasSubstr("history.jsonl"));
}

} // namespace
} // namespace orlinth::cli
