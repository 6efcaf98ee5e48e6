#include "OrlinthCore/Receiving/FolderTurns.h"
#include "OrlinthCore/Receiving/PartialMeta.h"
#include "unit/orlinth/CommandWorld.h"

namespace orlinth::cli {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const platform::Path downloads = "/home/ann/Downloads";

class PartialsCommandTest : public CommandWorldTest {
protected:
    Ended partials(std::vector<std::string> words = {}) {
        words.insert(words.begin(), {"partials", "--dir", downloads.string()});
        return CommandWorldTest::run(makePartialsCommand, words);
    }
    /// An unfinished download. The files of this world are older than its clock.
    void put(const std::string& name) {
        const PartialMeta meta{.transfer_id = TransferId(name),
                               .advertised_size = 10,
                               .started_at_epoch_ms = fromEpochMilliseconds(1),
                               .peer_pubkey = world.phoneRecord().peer_pubkey};
        world.files.put(downloads / (name + ".partial"), "01234");
        world.files.put(downloads / (name + ".partial.meta.json"), compactJson(meta.toJson()));
    }
    [[nodiscard]] platform::Path lock() {
        return FolderTurns(world.system.storage()).lockFile(world.files.status(downloads).value());
    }
    /// Another program that holds the turn for ever.
    void holdTurn() {
        holder = world.files.open(lock(), platform::OpenMode::openOrCreate);
        EXPECT_TRUE(holder->tryLock());
    }
    [[nodiscard]] std::string cannotRemove(const std::string& name) {
        return "cannot remove " + name + ".partial: file write failed: another program holds the lock " +
               lock().string();
    }
    [[nodiscard]] bool isThere(const std::string& name) const { return world.files.exists(downloads / name); }

    std::unique_ptr<platform::File> holder;
};

TEST_F(PartialsCommandTest, ListsWhatIsUnfinishedAndOfWhom) {
    EXPECT_THAT(partials().errors, ElementsAre("There are no unfinished downloads in /home/ann/Downloads."));
    put("trip.mov");
    world.files.put(downloads / "own.partial", "has no sidecar, so it is somebody's own");
    const std::vector<Json> events = partials({"--json"}).events();
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].at("name"), "trip.mov");
    EXPECT_EQ(events[0].at("path"), "/home/ann/Downloads/trip.mov.partial");
    EXPECT_EQ(events[0].at("size"), 5);
    EXPECT_EQ(events[0].at("advertised_size"), 10);
    EXPECT_EQ(events[0].at("from"), "Pixel-8");
    EXPECT_THAT(partials().output, testing::StartsWith("trip.mov  5 bytes of 10 bytes  from Pixel-8  20"));
    pair({});
    EXPECT_THAT(partials().output, testing::HasSubstr("from an unknown phone"));
}

TEST_F(PartialsCommandTest, RemovesOldOnesWithTheirSidecarsAndNothingElse) {
    put("a");
    put("b");
    world.files.put(downloads / "own.partial", "own");
    const Ended ended = partials({"--remove-older-than", "7"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.output, "removed a.partial (5 bytes)\nremoved b.partial (5 bytes)\n");
    EXPECT_THAT(ended.errors, ElementsAre("Removed 2 unfinished downloads, 10 bytes."));
    EXPECT_FALSE(isThere("a.partial") || isThere("a.partial.meta.json") || isThere("b.partial.meta.json"));
    EXPECT_TRUE(isThere("own.partial"));
    EXPECT_THAT(partials({"--remove-older-than", "7"}).errors, ElementsAre("There is nothing to remove."));
}

TEST_F(PartialsCommandTest, LeavesThoseThatAreNotOldEnough) {
    put("a");
    const Ended ended = partials({"--remove-older-than", "30000"}); // 82 years
    EXPECT_THAT(ended.errors, ElementsAre("There is nothing to remove."));
    EXPECT_TRUE(isThere("a.partial"));
}

TEST_F(PartialsCommandTest, GivesUpAfterFiveSecondsOnATurnThatDoesNotCome) {
    put("a");
    EXPECT_EQ(partials({"--remove-older-than", "7"}).status, 0) << "makes the lock's folder";
    put("b");
    holdTurn();
    const Ended ended = partials({"--remove-older-than", "7"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_NEAR(ended.after, FolderTurns::patience.count(), 0.5);
    EXPECT_EQ(ended.output, "");
    EXPECT_EQ(ended.failure(), "orlinth: " + cannotRemove("b"));
    EXPECT_THAT(ended.errors, testing::Each(testing::Not(testing::HasSubstr("nothing"))));
    EXPECT_TRUE(isThere("b.partial") && isThere("b.partial.meta.json"));
}

TEST_F(PartialsCommandTest, TellsOfThoseThatAreGoneAlsoIfTheTurnForAnotherDoesNotCome) {
    for (const char* name : {"a", "b", "c"}) {
        put(name);
    }
    world.files.beforeEach([this](fakes::Operation operation, const platform::Path&) {
        if (operation == fakes::Operation::lock && !holder && !isThere("b.partial")) {
            holdTurn();
        }
    });
    const Ended ended = partials({"--json", "--remove-older-than", "7"});
    world.files.beforeEach({});
    EXPECT_EQ(ended.status, 1);
    EXPECT_THAT(ended.names(), ElementsAre("partial_removed", "partial_removed", "error"));
    EXPECT_EQ(ended.failure(), "orlinth: " + cannotRemove("c"));
    EXPECT_FALSE(isThere("a.partial") || isThere("b.partial"));
    EXPECT_TRUE(isThere("c.partial"));
}

TEST_F(PartialsCommandTest, FindsNothingInAFolderThatIsNotThere) {
    world.files.removeDirectory(downloads);
    const Ended ended = partials({"--remove-older-than", "7"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_THAT(ended.errors, ElementsAre("There are no unfinished downloads: /home/ann/Downloads does not exist."));
}

} // namespace
} // namespace orlinth::cli
