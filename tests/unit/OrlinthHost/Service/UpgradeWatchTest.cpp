#include "OrlinthHost/Service/UpgradeWatch.h"

#include "OrlinthHost/Service/ControlMessage.h"
#include "ServiceWorld.h"

#include <gmock/gmock.h>

#include <cerrno>

namespace orlinth::host {
namespace {

using fakes::Operation;
using testing::HasSubstr;

const platform::Path program = "/usr/bin/orlinth";

/// A service under somebody who starts it anew, and its program, which others may replace.
class UpgradeWatchTest : public ServiceWorldTest {
protected:
    UpgradeWatchTest() {
        world_.files.put(program, "version 1");
        home_.version = "1";
        settings_.program = program;
        settings_.restart = [this] {
            ++restarts_;
            cancel();
        };
    }

    void upgrade() {
        world_.files.put("/usr/bin/.orlinth.new", "version 2");
        world_.files.swapIn("/usr/bin/.orlinth.new", program);
    }
    /// Somebody of this version asks for something.
    void askAs(const std::string& version) {
        EXPECT_THAT(ask(encodeControlRequestFrom(version, PortRequest{}) + "\n"), HasSubstr("7100"));
        settle();
    }
    /// Time that ends just before, and then just after, this instant from now.
    void expectRestartAfter(Seconds time) {
        pass(time - 1s);
        EXPECT_EQ(restarts_, 0);
        pass(2s);
        EXPECT_EQ(restarts_, 1);
    }
    void expectNoRestartWithin(Seconds time) {
        pass(time);
        EXPECT_EQ(restarts_, 0);
    }

    int restarts_ = 0;
};

// Looking

TEST_F(UpgradeWatchTest, AReplacedProgramIsNoticedWithinAnHourAndStartedAMinuteLater) {
    start();
    pass(10min);
    upgrade();
    expectRestartAfter(50min + 60s);
    EXPECT_TRUE(hasEnded_);
    EXPECT_EQ(problem(), "");
}

TEST_F(UpgradeWatchTest, AProgramThatStaysIsLeftAlone) {
    start();
    askAs("2");
    expectNoRestartWithin(25h);
    EXPECT_FALSE(hasEnded_);
}

TEST_F(UpgradeWatchTest, AClientOfAnotherVersionHasItLookAtOnce) {
    start();
    pass(10min);
    upgrade();
    askAs("2");
    expectRestartAfter(60s);
}

TEST_F(UpgradeWatchTest, AClientOfTheSameVersionOrOneThatDoesNotSayHasItLookNoEarlier) {
    start();
    pass(10min);
    upgrade();
    askAs("1");
    askAs("");
    expectRestartAfter(50min + 60s);
}

TEST_F(UpgradeWatchTest, AnotherNameOfTheSameFileIsNoOtherFile) {
    start();
    world_.files.putSecondName("/usr/bin/.orlinth.same", program);
    world_.files.swapIn("/usr/bin/.orlinth.same", program);
    askAs("2");
    expectNoRestartWithin(2h);
}

TEST_F(UpgradeWatchTest, AProgramThatIsGoneIsReplacedOnceThereIsAnother) {
    start();
    world_.files.remove(program);
    askAs("2");
    expectNoRestartWithin(2h);
    world_.files.putFolder(program);
    askAs("2");
    expectNoRestartWithin(2h);
    world_.files.removeDirectory(program);
    upgrade();
    askAs("2");
    expectRestartAfter(60s);
}

TEST_F(UpgradeWatchTest, AProgramThatIsTakenBackInTimeIsNotStarted) {
    start();
    world_.files.putSecondName("/usr/bin/.orlinth.old", program);
    upgrade();
    askAs("2");
    pass(30s);
    world_.files.swapIn("/usr/bin/.orlinth.old", program);
    expectNoRestartWithin(2h);
}

TEST_F(UpgradeWatchTest, AProgramThatCannotBeLookedAtForAWhileIsLookedAtAgain) {
    start();
    world_.files.addFault({.operation = Operation::status, .errorNumber = EIO, .times = 1, .nameEnding = "orlinth"});
    upgrade();
    askAs("2");
    expectRestartAfter(1h + 60s);
}

TEST_F(UpgradeWatchTest, NothingIsLookedAtIfNobodyWouldStartItAgain) {
    settings_.restart = nullptr;
    start();
    upgrade();
    askAs("2");
    expectNoRestartWithin(2h);
    EXPECT_FALSE(hasEnded_);
}

TEST_F(UpgradeWatchTest, NothingIsLookedAtIfItIsNotKnownWhichFileRuns) {
    settings_.program.reset();
    start();
    upgrade();
    askAs("2");
    expectNoRestartWithin(2h);
}

// Waiting

TEST_F(UpgradeWatchTest, AFileOnItsWayIsWaitedForAndAMinuteMore) {
    start();
    const std::unique_ptr<ScriptedPeer> from = phone();
    world_.run(from->send(Row::fileOffer("film.mov", 2, "text/plain", "ID")));
    static_cast<void>(world_.run(from->expect<Row::Resume>()));
    world_.run(from->sendBinary(toBytes("a")));
    upgrade();
    askAs("2");
    expectNoRestartWithin(9s); // of the time that a phone has between two pieces
    world_.run(from->sendBinary(toBytes("b")));
    world_.run(from->send(Row::done()));
    EXPECT_TRUE(world_.run(from->seesTheEnd()));
    EXPECT_EQ(received("film.mov"), "ab");
    expectRestartAfter(60s);
}

TEST_F(UpgradeWatchTest, ShortWorkMeanwhileBeginsTheMinuteAnew) {
    start();
    upgrade();
    askAs("2");
    pass(50s);
    deliver("a.txt");
    expectRestartAfter(60s);
}

TEST_F(UpgradeWatchTest, ALentPortIsWaitedFor) {
    start();
    upgrade();
    std::optional<BorrowedPort> port = world_.run(BorrowedPort::borrow(home_, std::nullopt));
    ASSERT_TRUE(port);
    askAs("2");
    expectNoRestartWithin(10min);
    port.reset();
    settle();
    expectRestartAfter(60s);
}

// Asking for it

TEST_F(UpgradeWatchTest, WhoeverAsksForARestartIsAnsweredBefore) {
    start();
    EXPECT_EQ(ask("{\"request\":\"restart\"}\n"), "{\"found\":true}");
    EXPECT_EQ(restarts_, 0);
    pass(1s);
    EXPECT_EQ(restarts_, 1);
    EXPECT_TRUE(hasEnded_);
}

TEST_F(UpgradeWatchTest, ARestartIsRefusedInWordsIfNobodyWouldStartItAgain) {
    settings_.restart = nullptr;
    start();
    EXPECT_EQ(ask("{\"request\":\"restart\"}\n"), R"({"error":"no service manager would start the service again"})");
    pass(1h);
    EXPECT_FALSE(hasEnded_);
}

TEST_F(UpgradeWatchTest, ARestartThatWasAskedForDoesNotFollowAnEndBefore) {
    start();
    EXPECT_EQ(ask("{\"request\":\"restart\"}\n"), "{\"found\":true}");
    stop();
    pass(1h);
    EXPECT_EQ(restarts_, 0);
}

} // namespace
} // namespace orlinth::host
