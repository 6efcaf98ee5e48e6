#include "OrlinthHost/Service/HistoryKeeper.h"

#include "fakes/World.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orlinth::host {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

HistoryEntry entryAt(const std::string& name, std::int64_t time) {
    return {.time = fromEpochMilliseconds(time), .file = name};
}

std::vector<std::string> namesOf(const std::vector<HistoryEntry>& entries) {
    std::vector<std::string> names;
    for (const HistoryEntry& one : entries) {
        names.push_back(one.file);
    }
    return names;
}

std::vector<std::string> pageOf(std::vector<HistoryEntry> entries, std::int64_t before, std::size_t count) {
    return namesOf(host::pageOf(std::move(entries),
                                before > 0 ? std::optional(fromEpochMilliseconds(before)) : std::nullopt, count));
}

TEST(HistoryPage, HasTheNewestFirst) {
    const std::vector<HistoryEntry> entries{entryAt("a", 1), entryAt("b", 2), entryAt("c", 3)};
    EXPECT_THAT(pageOf(entries, 0, 10), ElementsAre("c", "b", "a"));
    EXPECT_THAT(pageOf(entries, 0, 2), ElementsAre("c", "b"));
    EXPECT_THAT(pageOf(entries, 2, 2), ElementsAre("a"));
    EXPECT_THAT(pageOf(entries, 1, 2), IsEmpty());
    EXPECT_THAT(pageOf({}, 0, 2), IsEmpty());
}

TEST(HistoryPage, HasAllOfTheSameTimeSoThatTheNextOneMissesNone) {
    const std::vector<HistoryEntry> entries{entryAt("a", 1), entryAt("b", 2), entryAt("c", 2), entryAt("d", 2),
                                            entryAt("e", 3)};
    EXPECT_THAT(pageOf(entries, 0, 2), ElementsAre("e", "d", "c", "b"));
    EXPECT_THAT(pageOf(entries, 2, 2), ElementsAre("a"));
}

TEST(HistoryPage, IsInTheOrderOfTimeIfTheClockWasSetBack) {
    EXPECT_THAT(pageOf({entryAt("a", 5), entryAt("b", 1), entryAt("c", 3)}, 0, 10), ElementsAre("a", "c", "b"));
}

class HistoryKeeperTest : public testing::Test {
protected:
    void end(HistoryKeeper& keeper, const std::string& name) {
        keeper.ended({.name = name, .state = TransferView::State::done});
        world_.run(world_.clock.sleep(1s));
    }

    fakes::World world_;
    Home home_{world_.system, world_.context.get_executor()};
};

TEST_F(HistoryKeeperTest, TellsWhatWasAddedSince) {
    HistoryKeeper keeper(home_, true);
    int changes = 0;
    keeper.onChanged = [&changes] { ++changes; };
    end(keeper, "a");
    const std::uint64_t seen = keeper.version();
    EXPECT_THAT(keeper.since(seen).added, IsEmpty());
    end(keeper, "b");
    end(keeper, "c");
    const HistoryKeeper::News news = keeper.since(seen);
    EXPECT_TRUE(news.isWhole);
    EXPECT_EQ(keeper.version(), news.version);
    EXPECT_THAT(namesOf(news.added), ElementsAre("b", "c"));
    EXPECT_EQ(3, changes);
    EXPECT_THAT(namesOf(world_.run(keeper.page(std::nullopt, 2))), ElementsAre("c", "b"));
    world_.run(keeper.finish());
}

TEST_F(HistoryKeeperTest, IsToBeReadAnewWhenItWasCleared) {
    HistoryKeeper keeper(home_, true);
    end(keeper, "a");
    const std::uint64_t seen = keeper.version();
    end(keeper, "b");
    world_.run(keeper.clear());
    EXPECT_FALSE(keeper.since(seen).isWhole);
    EXPECT_THAT(world_.run(keeper.page(std::nullopt, 10)), IsEmpty());
    const std::uint64_t cleared = keeper.version();
    end(keeper, "c");
    EXPECT_FALSE(keeper.since(seen).isWhole);
    EXPECT_THAT(namesOf(keeper.since(cleared).added), ElementsAre("c"));
    world_.run(keeper.finish());
}

TEST_F(HistoryKeeperTest, IsToBeReadAnewByWhoHasMissedMoreThanIsKept) {
    HistoryKeeper keeper(home_, true);
    for (std::size_t i = 0; i < HistoryKeeper::maxRecent; ++i) {
        keeper.ended({.name = "a"});
    }
    EXPECT_TRUE(keeper.since(0).isWhole);
    keeper.ended({.name = "a"});
    EXPECT_FALSE(keeper.since(0).isWhole);
    world_.run(keeper.finish());
}

TEST_F(HistoryKeeperTest, ThatIsOffTellsNothing) {
    HistoryKeeper keeper(home_, false);
    end(keeper, "a");
    EXPECT_EQ(0U, keeper.version());
    world_.run(keeper.finish());
}

} // namespace
} // namespace orlinth::host
