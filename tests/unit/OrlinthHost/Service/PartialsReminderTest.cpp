#include "OrlinthHost/Service/PartialsReminder.h"

#include "OrlinthCore/Receiving/PartialMeta.h"
#include "OrlinthCore/Share/ShareOutbox.h"
#include "fakes/World.h"
#include "platform/WholeFile.h"

#include <gtest/gtest.h>

namespace orlinth::host {
namespace {

const platform::Path folder = "/home/ann/Downloads";
const std::vector<platform::Path> folders{"/home/ann/None", folder};
const platform::Path state = "/home/ann/.local/share/Orlinth/partials-reminder.json";
constexpr Seconds day = 24h;

class PartialsReminderTest : public testing::Test {
protected:
    PartialsReminderTest() {
        world_.files.putFolder(folder);
        world_.files.putFolder(state.parent_path());
    }

    /// An unfinished download that was changed before the tests' time begins.
    void putPartial(const std::string& name, const std::string& content) {
        world_.files.put(folder / (name + ".partial"), content);
        world_.files.put(
            folder / (name + ".partial.meta.json"),
            compactJson(PartialMeta{TransferId(name), 10, fromEpochMilliseconds(1), PeerKey("a phone")}.toJson()));
    }
    void run(Seconds time) {
        PartialsReminder reminder(
            home_, [] { return folders; },
            [this](const PartialsReminder::Reminder& told, const platform::Path& where) {
                counts_.push_back(told.count);
                bytes_ = told.bytes;
                where_.push_back(where);
            });
        reminder.start();
        world_.run(world_.clock.sleep(time));
        world_.run(reminder.finish());
    }

    fakes::World world_;
    Home home_{world_.system, world_.context.get_executor()};
    std::vector<std::int64_t> counts_;
    std::int64_t bytes_ = 0;
    std::vector<platform::Path> where_;
};

TEST_F(PartialsReminderTest, RemindsOnceAWeekAlsoAcrossRestarts) {
    putPartial("a", "12345");
    putPartial("b", "123");
    run(30s);
    EXPECT_TRUE(counts_.empty()) << "the start is for other things";
    run(3 * day);
    EXPECT_EQ(counts_, std::vector<std::int64_t>{2});
    EXPECT_EQ(bytes_, 8);
    EXPECT_EQ(where_, std::vector{folder}) << "and nothing of the folder that is not there";
    EXPECT_EQ(world_.files.status(state).value().permissions, 0600U);
    run(3 * day);
    EXPECT_EQ(counts_.size(), 1U);
    run(3 * day);
    EXPECT_EQ(counts_.size(), 2U);
    run(30 * day);
    EXPECT_EQ(counts_.size(), 6U);
}

TEST_F(PartialsReminderTest, SaysNothingIfThereIsNothing) {
    world_.files.put(folder / "own.partial", "own");
    run(10 * day);
    EXPECT_TRUE(counts_.empty());
    EXPECT_FALSE(world_.files.exists(state));
    world_.files.remove(folder / "own.partial");
    world_.files.removeDirectory(folder);
    run(10 * day);
    EXPECT_TRUE(counts_.empty());
}

TEST_F(PartialsReminderTest, RemovesWhatKilledProgramsHaveLeft) {
    const platform::Path inDownloads = folder / platform::temporaryName().text();
    const platform::Path inData = state.parent_path() / platform::temporaryName().text();
    const platform::Path besideOutbox =
        ShareOutbox(world_.files, world_.system.directories).container() / platform::temporaryName().text();
    world_.files.put(inDownloads, "half");
    world_.files.put(besideOutbox, "half");
    world_.files.put(inData, "half");
    run(120s);
    EXPECT_FALSE(world_.files.exists(inDownloads));
    EXPECT_FALSE(world_.files.exists(inData));
    EXPECT_FALSE(world_.files.exists(besideOutbox));
}

TEST_F(PartialsReminderTest, RemindsAllTheSameIfItsMemoryIsRuined) {
    putPartial("a", "12345");
    for (const char* text :
         {"", "{", "{\"reminded_at_epoch_ms\":9000000000000000000}", "{\"reminded_at_epoch_ms\":\"x\"}"}) {
        counts_.clear();
        world_.files.put(state, text);
        run(120s);
        EXPECT_EQ(counts_.size(), 1U) << text;
    }
}

TEST_F(PartialsReminderTest, HoldsNobodyUpBehindAFolderThatDoesNotAnswer) {
    putPartial("a", "12345");
    asio::io_context others;
    world_.queues.threadQueue = others.get_executor(); // these run when the test says so
    Home home{world_.system, world_.context.get_executor()};
    PartialsReminder reminder(
        home, [] { return folders; },
        [this](const PartialsReminder::Reminder& told, const platform::Path&) { counts_.push_back(told.count); });
    reminder.start();
    world_.run(world_.clock.sleep(2 * day)); // the first look waits for the folder
    world_.alongside(reminder.finish());
    world_.context.restart();
    world_.context.poll();
    EXPECT_EQ(world_.companionsRunning, 1) << "it must not go while it is looking";
    EXPECT_TRUE(counts_.empty());
    EXPECT_FALSE(world_.files.exists(state)) << "somebody else has looked";
    others.run(); // the folder answers
    world_.context.restart();
    world_.context.poll();
    EXPECT_EQ(counts_, std::vector<std::int64_t>{1});
    EXPECT_EQ(world_.companionsRunning, 0);
}

} // namespace
} // namespace orlinth::host
