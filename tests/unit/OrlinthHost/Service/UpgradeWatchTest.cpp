#include "OrlinthHost/Service/UpgradeWatch.h"

#include "OrlinthCore/Pairing/PairCrypto.h"
#include "OrlinthCore/Pairing/PairWire.h"
#include "OrlinthCore/Pairing/PairingPayload.h"
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

    /// Somebody begins a pairing, and a tablet scans the code.
    void beginPairing() {
        owner_ = connectToControl();
        EXPECT_THAT(ask(*owner_, "{\"request\":\"pair\"}\n"), HasSubstr("waiting"));
        const SecretBytes code = world_.run(world_.unixSockets.receiveSecret(*owner_, 4096));
        const SecretBytes secret = PairingPayload::decode(code.reveal()).secret();
        const platform::PrivateKey tabletKey = platform::PrivateKey::generate();
        const std::string introduction = compactJson({{"peer_pubkey", tabletKey.publicKey().base64()},
                                                      {"peer_ip", "192.168.1.50"},
                                                      {"peer_port", 7002},
                                                      {"peer_hostname", "Tablet"}});
        const SecretBytes key = PairCrypto::deriveAEADKey(secret.reveal());
        const Bytes frame = PairWire::encodeFrame(PairCrypto::sealIntroduction(asBytes(introduction), key));
        world_.network.sources.emplace_back("192.168.1.50:40112");
        tablet_ = world_.run(world_.network.connect("192.168.1.23", port, world_.context.get_executor()));
        world_.run(write(*tablet_, std::string(toText(frame))));
        EXPECT_THAT(world_.run(readLine(*owner_)), HasSubstr("confirming"));
    }
    /// A phone that takes a text, and its time.
    [[nodiscard]] Task<> takeTextWithin(Seconds time) {
        const auto at = co_await ScriptedPeer::accept(world_, world_.phoneKey);
        static_cast<void>(co_await at->expect<Row::Clipboard>());
        co_await world_.clock.sleep(time);
        at->close();
    }

    int restarts_ = 0;
    std::unique_ptr<platform::Stream> owner_; ///< of the pairing
    std::unique_ptr<platform::Stream> tablet_;
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

TEST_F(UpgradeWatchTest, APairingIsWaitedForUntilSomebodyHasConfirmedIt) {
    start();
    beginPairing();
    upgrade();
    askAs("2");
    expectNoRestartWithin(4min); // the port is back long since
    world_.run(write(*owner_, "{\"confirm\":true}\n"));
    EXPECT_THAT(world_.run(readLine(*owner_)), HasSubstr("done"));
    EXPECT_THAT(paired(), testing::ElementsAre("Pixel-8", "Tablet"));
    expectRestartAfter(60s);
}

TEST_F(UpgradeWatchTest, ATextOnItsWayIsWaitedForAndAMinuteMore) {
    start();
    world_.alongside(takeTextWithin(4s));
    const std::unique_ptr<platform::Stream> sender = connectToControl();
    world_.run(write(*sender, encodeControlRequest(PhoneRequest(SendTextRequest{})) + "\n"));
    world_.run(world_.unixSockets.sendSecret(*sender, asBytes("text")));
    upgrade();
    askAs("2");
    EXPECT_EQ("{\"found\":true}", world_.run(readLine(*sender)));
    EXPECT_EQ(4, world_.clock.elapsed());
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
