#include "orlinth/OutboxJournal.h"

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
    void complete(const InFlightKey& key) {
        journal_.journal().complete(key.name, key.size, key.mime, key.fingerprint);
    }

    fakes::World world_;
    OutboxJournal journal_{world_.system, "/memory/inflight.json"};
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

TEST_F(OutboxJournalTest, KeepsTheIdOfAFileThatIsTakenBackAlsoIfOthersWerePreparedMeanwhile) {
    journal_.prepare({folder / "a.txt"});
    const auto before = onDisk();
    ASSERT_THAT(before, SizeIs(1));
    const InFlightKey key = keyOf(before.begin()->first);
    complete(key);
    journal_.prepare({folder / "b.txt", folder / "c.txt"});
    EXPECT_FALSE(onDisk().contains(key.text())) << "it was sent";
    journal_.takeBack(folder / "a.txt");
    EXPECT_EQ(before.begin()->second, onDisk().at(key.text()));
    EXPECT_EQ(before.begin()->second, journal_.journal().getOrCreate(key.name, key.size, key.mime, key.fingerprint));
}

TEST_F(OutboxJournalTest, ForgetsWhatWasSent) {
    journal_.prepare({folder / "a.txt"});
    const InFlightKey key = keyOf(onDisk().begin()->first);
    complete(key);
    journal_.forget(folder / "a.txt");
    EXPECT_FALSE(journal_.isPrepared(folder / "a.txt"));
    journal_.takeBack(folder / "a.txt");
    journal_.prepare({folder / "b.txt"});
    EXPECT_FALSE(onDisk().contains(key.text()));
}

} // namespace
} // namespace orlinth::host
