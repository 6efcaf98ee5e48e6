#include "OrlinthHost/Phones/PeerStoreWatch.h"

#include "fakes/World.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

namespace orlinth::host {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class PeerStoreWatchTest : public testing::Test {
protected:
    PeerStoreWatchTest() {
        write("Pixel-8");
        pass(100s); // so old that it shows every change
    }
    ~PeerStoreWatchTest() override { watch.stop(); }

    void write(const std::string& name) {
        PeerRecord record = world.phoneRecord();
        record.peer_hostname = name;
        home.peers().writeBook({{record}});
    }
    /// What the kernel says of every change in the folder, also of other files there.
    void tellOfChange() {
        world.folders.change(home.peers().directoryURL());
        world.context.restart();
        world.context.poll();
    }
    void pass(Seconds time) { world.run(world.clock.sleep(time)); }
    /// The instants at which a change was told since the last call, in seconds from the first one on.
    [[nodiscard]] std::vector<double> told() { return std::exchange(instants, {}); }

    fakes::World world;
    Home home{world.system, world.context.get_executor()};
    std::vector<double> instants;
    PeerStoreWatch watch{home, [this] { instants.push_back(world.clock.elapsed() - 100); }};
};

TEST_F(PeerStoreWatchTest, SaysAtTheStartThatThereMayBeAChange) {
    watch.start();
    EXPECT_THAT(told(), ElementsAre(0));
}

TEST_F(PeerStoreWatchTest, SaysAtOnceWhenTheStoreHasChangedAndNothingOfOtherFiles) {
    watch.start();
    static_cast<void>(told());
    pass(7s);
    tellOfChange(); // say, of a journal
    EXPECT_THAT(told(), IsEmpty());
    write("Galaxy");
    tellOfChange();
    EXPECT_THAT(told(), ElementsAre(7));
}

TEST_F(PeerStoreWatchTest, LooksOnceAMinuteForWhatTheKernelDoesNotTell) {
    watch.start();
    static_cast<void>(told());
    pass(59s);
    write("Galaxy");
    EXPECT_THAT(told(), IsEmpty());
    pass(900ms);
    EXPECT_THAT(told(), IsEmpty());
    pass(121s);
    EXPECT_THAT(told(), ElementsAre(60));
    pass(600s);
    EXPECT_THAT(told(), IsEmpty());
}

TEST_F(PeerStoreWatchTest, LooksOnceAMinuteWhereTheFolderCannotBeWatched) {
    world.folders.errorNumber = ENOSPC;
    watch.start();
    EXPECT_THAT(world.log.messages(), ElementsAre(HasSubstr("cannot watch the peer store: ")));
    static_cast<void>(told());
    pass(30s);
    world.files.remove(home.peers().fileURL());
    pass(31s);
    EXPECT_THAT(told(), ElementsAre(60));
}

TEST_F(PeerStoreWatchTest, LeavesAFileThatCannotBeLookedAtToWhoReadsIt) {
    watch.start();
    static_cast<void>(told());
    world.files.addFault({.operation = fakes::Operation::status, .errorNumber = EIO, .times = 1});
    tellOfChange();
    EXPECT_THAT(told(), ElementsAre(0));
}

TEST_F(PeerStoreWatchTest, SaysNothingOnceItIsStopped) {
    watch.start();
    static_cast<void>(told());
    write("Galaxy");
    world.folders.change(home.peers().directoryURL()); // is under way when the end comes
    watch.stop();
    pass(600s);
    EXPECT_THAT(told(), IsEmpty());
    EXPECT_FALSE(world.folders.isWatched(home.peers().directoryURL()));
    EXPECT_EQ(world.clock.pendingAlarms(), 0U);
}

} // namespace
} // namespace orlinth::host
