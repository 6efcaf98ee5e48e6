#include "OrlinthCore/Pairing/PairCrypto.h"
#include "OrlinthCore/Pairing/PairListener.h"
#include "OrlinthCore/Pairing/PairWire.h"
#include "OrlinthHost/Service/PairingDoor.h"
#include "ServiceWorld.h"
#include "platform/Spawn.h"

#include <gmock/gmock.h>

#include <utility>

namespace orlinth::host {
namespace {

using testing::IsEmpty;
using testing::SizeIs;

const std::string introduction = R"({"peer_hostname":"Tablet"})";
/// As long as a handshake's first message once it is sealed.
const std::string shortest = "abcd";

SecretBytes secretOf(char fill) {
    return SecretBytes(asBytes(std::string(32, fill)));
}

Bytes sealed(const std::string& plaintext, char fill = 's') {
    const SecretBytes key = PairCrypto::deriveAEADKey(secretOf(fill).reveal());
    return PairCrypto::sealIntroduction(asBytes(plaintext), key);
}

Bytes framed(const std::string& plaintext, char fill = 's') {
    return PairWire::encodeFrame(sealed(plaintext, fill));
}

/// A pairing that has borrowed the port of a running service, with those who come to it.
class PairingBesideAServiceTest : public ServiceWorldTest {
protected:
    ~PairingBesideAServiceTest() override { endPairing(); }

    /// The port is borrowed, and the pairing waits for its phone.
    void beginPairing() {
        start();
        borrowed_ = world_.run(BorrowedPort::borrow(home_, std::nullopt));
        ASSERT_TRUE(borrowed_);
        auto onDelivery = [this](const std::string& who) { deliveries_.push_back(who); };
        door_.emplace(home_, borrowed_->takeListener(), secretOf('s'), std::move(onDelivery));
        pairing_.emplace(world_.system, secretOf('s'), port, Seconds(120), door_->listener());
        isPairing_ = true;
        platform::spawn(world_.context.get_executor(), awaitPhone(), [this](const std::exception_ptr& error) {
            isPairing_ = false;
            failure_ = error ? describe(error) : "";
        });
        settle();
    }
    [[nodiscard]] Task<> awaitPhone() {
        const PairListener::Result result = co_await pairing_->awaitIntroduction();
        introduced_ = toText(result.phoneIntroductionPlaintext);
    }
    /// As the program does when its pairing is over: nobody is left at the port, and it is given back.
    void endPairing() {
        if (pairing_) {
            pairing_->cancel();
            if (!std::exchange(isDoorFinished_, false)) {
                static_cast<void>(world_.run(door_->finish()));
            }
            pairing_.reset();
            door_.reset();
            borrowed_.reset();
            settle();
        }
    }

    /// Somebody who connects and says this.
    [[nodiscard]] std::unique_ptr<platform::Stream> visit(Bytes data) {
        world_.network.sources.emplace_back("192.168.1.7:40112"); // as the service would let in
        std::unique_ptr<platform::Stream> stream =
            world_.run(world_.network.connect("203.0.113.1", port, world_.context.get_executor()));
        try {
            world_.run(say(*stream, std::move(data)));
        } catch (const platform::SystemError&) {
            // turned away already
        }
        settle();
        return stream;
    }
    [[nodiscard]] static Task<> say(platform::Stream& stream, const Bytes data) { co_await stream.writeAll(data); }
    /// Begins to finish the door, and lets somebody else connect after each of the steps up to the next instant.
    [[nodiscard]] std::vector<std::unique_ptr<platform::Stream>> visitWhileItIsFinished() {
        std::vector<std::unique_ptr<platform::Stream>> late;
        world_.alongside(finishDoor());
        world_.context.restart();
        for (int count = 0; world_.context.poll_one() > 0; ++count) {
            if (count < 30) {
                world_.alongside(visitLate(late));
            }
        }
        pass(1s);
        EXPECT_TRUE(isDoorFinished_);
        EXPECT_THAT(late, SizeIs(30));
        return late;
    }
    [[nodiscard]] Task<> finishDoor() { isDoorFinished_ = co_await door_->finish(); }
    [[nodiscard]] Task<> visitLate(std::vector<std::unique_ptr<platform::Stream>>& late) {
        world_.network.sources.emplace_back("192.168.1.7:40112"); // as the service would let in
        auto stream = co_await world_.network.connect("203.0.113.1", port, world_.context.get_executor());
        late.push_back(std::move(stream));
    }
    /// Whether the connection has ended without an answer.
    [[nodiscard]] bool isTurnedAway(platform::Stream& stream) {
        try {
            return stream.hasEnded() && world_.run(readLine(stream)).empty();
        } catch (const platform::SystemError&) {
            return true; // a reset
        }
    }

    std::optional<BorrowedPort> borrowed_;
    std::optional<PairingDoor> door_;
    std::optional<PairListener> pairing_;
    bool isPairing_ = false;
    bool isDoorFinished_ = false;
    std::string introduced_; ///< what the phone has said
    std::string failure_;    ///< how the pairing ended
    std::vector<std::string> deliveries_;
};

TEST_F(PairingBesideAServiceTest, LetsThePhoneInAndLeavesThePortToTheService) {
    for (int attempt = 0; attempt < 2; ++attempt) {
        introduced_.clear();
        beginPairing();
        static_cast<void>(visit(framed(introduction)));
        EXPECT_EQ(introduction, introduced_);
        endPairing();
        EXPECT_EQ("returned", events_.all.back());
        deliver(std::to_string(attempt));
        EXPECT_EQ("content of " + std::to_string(attempt), received(std::to_string(attempt)));
        stop();
    }
    EXPECT_THAT(events_.failures, IsEmpty());
}

TEST_F(PairingBesideAServiceTest, IsNotDisturbedByPairedPhonesThatWantToDeliverMeanwhile) {
    beginPairing();
    for (int i = 0; i < 2; ++i) {
        EXPECT_THROW(static_cast<void>(phone()), WireConnection::Error);
    }
    visit({})->cancel(); // and one who hangs up without a word
    settle();
    EXPECT_TRUE(isPairing_);
    static_cast<void>(visit(framed(introduction)));
    EXPECT_EQ(introduction, introduced_);
    EXPECT_THAT(deliveries_, SizeIs(2));
    endPairing();
    deliver("late.txt");
    EXPECT_EQ("content of late.txt", received("late.txt"));
}

TEST_F(PairingBesideAServiceTest, IsNotHeldUpByStrangersWhoSayNothing) {
    beginPairing();
    const double before = world_.clock.elapsed();
    std::vector<std::unique_ptr<platform::Stream>> strangers;
    for (std::size_t number = 0; number < PairingDoor::maxVisitors + 36; ++number) { // more than are listened to
        const Bytes lengthAndNoMore{std::byte{0}, std::byte{0}, std::byte{0}, std::byte{32}};
        strangers.push_back(visit(number % 2 == 0 ? Bytes() : lengthAndNoMore));
    }
    EXPECT_TRUE(isTurnedAway(*strangers.front())) << "there is room for the last ones";
    EXPECT_FALSE(strangers.back()->hasEnded());
    static_cast<void>(visit(framed(introduction)));
    EXPECT_EQ(introduction, introduced_);
    EXPECT_EQ(before, world_.clock.elapsed());
    EXPECT_TRUE(isTurnedAway(*strangers.back()));
}

TEST_F(PairingBesideAServiceTest, LetsGoOfThoseWhoSayNothing) {
    beginPairing();
    const std::unique_ptr<platform::Stream> silent = visit({});
    pass(PairingDoor::patience - 100ms);
    EXPECT_FALSE(silent->hasEnded());
    pass(200ms);
    EXPECT_TRUE(isTurnedAway(*silent));
    EXPECT_TRUE(isPairing_);
}

TEST_F(PairingBesideAServiceTest, TellsAFewTimesAndNoMoreThatSomebodyWantedToDeliver) {
    beginPairing();
    for (int i = 0; i < 30; ++i) { // a stranger, for all that anybody can tell
        const auto stranger = visit(PairWire::encodeFrame(Bytes(32)));
        EXPECT_TRUE(isTurnedAway(*stranger));
    }
    static_cast<void>(visit(framed(introduction)));
    EXPECT_EQ(introduction, introduced_);
    EXPECT_THAT(deliveries_, SizeIs(5));
}

TEST_F(PairingBesideAServiceTest, TakesAFrameOf32BytesForAnIntroductionIfItOpens) {
    beginPairing();
    ASSERT_THAT(sealed(shortest), SizeIs(32));
    for (const Bytes& other : {PairWire::encodeFrame(Bytes(32)), framed(shortest, 'x')}) {
        EXPECT_TRUE(isTurnedAway(*visit(other)));
    }
    EXPECT_TRUE(isPairing_);
    static_cast<void>(visit(framed(shortest)));
    EXPECT_EQ(shortest, introduced_);
    EXPECT_THAT(deliveries_, SizeIs(2));
}

TEST_F(PairingBesideAServiceTest, TurnsAwayASecondPhoneAlsoOnAPortThatStaysOpen) {
    for (const bool staysOpen : {false, true}) {
        world_.network.inherited = staysOpen ? std::optional(port) : std::nullopt;
        introduced_.clear();
        beginPairing();
        const Bytes frame = framed(introduction);
        const std::unique_ptr<platform::Stream> first = visit(Bytes(frame.begin(), frame.end() - 1));
        std::vector<std::unique_ptr<platform::Stream>> late;
        for (int i = 0; i < 3; ++i) {
            late.push_back(visit(framed(R"({"peer_hostname":"Other"})")));
        }
        EXPECT_EQ("", introduced_);
        world_.run(say(*first, Bytes(frame.end() - 1, frame.end())));
        settle();
        EXPECT_EQ(introduction, introduced_);
        if (staysOpen) { // the system connects them, whoever listens or not
            for (std::unique_ptr<platform::Stream>& stream : visitWhileItIsFinished()) {
                late.push_back(std::move(stream));
            }
        }
        endPairing();
        pass(1s);
        for (const std::unique_ptr<platform::Stream>& connection : late) {
            EXPECT_TRUE(isTurnedAway(*connection));
        }
        EXPECT_THAT(events_.failures, IsEmpty()) << "none of them was left for the service";
        deliver("a.txt");
        EXPECT_EQ("content of a.txt", received("a.txt"));
        stop();
    }
}

} // namespace
} // namespace orlinth::host
