#include "OrlinthHost/Outbox/OutboxJournal.h"

#include "fakes/World.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

namespace orlinth::host {
namespace {

using testing::SizeIs;

const platform::Path folder = "/outbox/ID";

class OutboxJournalTest : public testing::Test {
protected:
    OutboxJournalTest() {
        for (const char* name : {"a.txt", "b.txt", "c.txt"}) {
            world_.files.put(folder / name, std::string("content of ") + name);
        }
        world_.files.putFolder("/memory");
    }
    [[nodiscard]] std::map<std::string, std::string> onDisk() {
        return InFlightJournal(world_.files, "/memory/inflight.json").snapshotEntries();
    }
    /// Of an entry's name.
    [[nodiscard]] static InFlightKey keyOf(const std::string& entry) {
        std::vector<std::string> parts;
        std::istringstream text(entry);
        for (std::string part; std::getline(text, part, '|');) {
            parts.push_back(part);
        }
        return {parts.at(0), std::stoll(parts.at(1)), parts.at(2), parts.at(3)};
    }
    fakes::World world_;
    OutboxJournal journal_{world_.files, world_.mimeTypes, "/memory/inflight.json"};
};

TEST_F(OutboxJournalTest, WritesTheIdsOfSeveralFilesAtOnce) {
    const std::size_t flushes = world_.files.count(fakes::Operation::flush);
    journal_.prepare({folder / "a.txt", folder / "missing.txt", folder / "b.txt"});
    EXPECT_EQ(flushes + 1, world_.files.count(fakes::Operation::flush));
    EXPECT_THAT(onDisk(), SizeIs(2));
    EXPECT_TRUE(journal_.isPrepared(folder / "a.txt"));
    EXPECT_FALSE(journal_.isPrepared(folder / "missing.txt"));
    EXPECT_EQ(16, journal_.sizeOf(folder / "a.txt"));
    EXPECT_EQ(0, journal_.sizeOf(folder / "missing.txt"));
    const auto before = onDisk();
    journal_.prepare({folder / "a.txt", folder / "b.txt"});
    EXPECT_EQ(before, onDisk());
}

TEST_F(OutboxJournalTest, OffersEachFileUnderItsIdUntilItIsComplete) {
    journal_.prepare({folder / "a.txt"});
    const auto before = onDisk();
    ASSERT_THAT(before, SizeIs(1));
    const PreparedFile file = journal_.take(folder / "a.txt");
    EXPECT_EQ(before.begin()->second, file.transferId.text());
    EXPECT_EQ("a.txt", file.file.name);
    EXPECT_EQ(folder / "a.txt", file.path);
    journal_.prepare({folder / "b.txt", folder / "c.txt"});
    EXPECT_EQ(file.transferId, journal_.take(folder / "a.txt").transferId) << "for the next attempt";
    EXPECT_EQ(file.transferId.text(), onDisk().at(before.begin()->first)) << "also if we are killed";
}

TEST_F(OutboxJournalTest, ForgetsWhatIsComplete) {
    journal_.prepare({folder / "a.txt"});
    const std::string key = onDisk().begin()->first;
    journal_.complete(folder / "a.txt");
    EXPECT_FALSE(journal_.isPrepared(folder / "a.txt"));
    journal_.complete(folder / "a.txt");
    journal_.prepare({folder / "b.txt"});
    EXPECT_FALSE(onDisk().contains(key));
}

TEST_F(OutboxJournalTest, SaysWhatIsWrongWithAFileThatCannotBeTaken) {
    EXPECT_THROW(static_cast<void>(journal_.take(folder / "missing.txt")), SendError);
    world_.files.put(folder / "missing.txt", "late");
    EXPECT_EQ(4, journal_.take(folder / "missing.txt").file.size) << "it has come since";
    EXPECT_THAT(onDisk(), SizeIs(1));
}

} // namespace
} // namespace orlinth::host
