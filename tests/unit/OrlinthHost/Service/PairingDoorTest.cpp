#include "OrlinthHost/Service/PairingDoor.h"

#include "OrlinthCore/Pairing/PairCrypto.h"
#include "OrlinthCore/Pairing/PairWire.h"
#include "OrlinthCore/Receiving/ReceivingLimits.h"
#include "fakes/PairPhone.h"
#include "fakes/World.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orlinth::host {
namespace {

using fakes::PairPhone;
using End = PairPhone::End;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr std::uint16_t port = 7300;

SecretBytes secretOf(char fill) {
    return SecretBytes(asBytes(std::string(32, fill)));
}

/// A frame with an introduction for a pairing whose secret is filled with this.
Bytes introduction(char fill, const std::string& plaintext = R"({"peer_hostname":"Pixel-8"})") {
    const SecretBytes key = PairCrypto::deriveAEADKey(secretOf(fill).reveal());
    return PairWire::encodeFrame(PairCrypto::sealIntroduction(asBytes(plaintext), key));
}

/// The first message of a paired phone that wants to deliver something.
Bytes greeting() {
    return PairWire::encodeFrame(Bytes(32, std::byte{9}));
}

/// A pairing at a port that was borrowed.
class PairingDoorTest : public testing::Test {
protected:
    PairingDoorTest()
        : door(std::in_place, home,
               world.network.listen({.port = port, .keepAlive = std::nullopt}, world.context.get_executor()),
               secretOf('s'), [this](const std::string& who) { deliveries.push_back(who); }),
          listener(door->listener()) {}
    ~PairingDoorTest() override {
        listener.reset();
        door.reset();
    }

    /// Lets somebody come, `phone.connectsAt` seconds from the beginning on.
    PairPhone& comes(PairPhone phone) {
        visitors.push_back(std::make_unique<PairPhone>(std::move(phone)));
        world.alongside(fakes::play(world, port, *visitors.back()));
        return *visitors.back();
    }
    /// The pairing waits, until the phone is there.
    [[nodiscard]] std::unique_ptr<platform::Stream> accept() {
        return world.run(listener->accept(world.context.get_executor()));
    }
    [[nodiscard]] Task<Bytes> readExactly(platform::Stream& stream, std::size_t count) {
        Bytes bytes(count);
        const std::size_t read = co_await stream.readExact(bytes);
        bytes.resize(read);
        co_return bytes;
    }
    [[nodiscard]] Task<> closeAt(Seconds time) {
        co_await world.clock.sleep(time);
        listener->close();
    }
    /// Runs everything that is ready.
    void settle() {
        world.context.restart();
        world.context.poll();
    }
    void finish() { EXPECT_TRUE(world.run(door->finish())); }

    fakes::World world;
    Home home{world.system, world.context.get_executor()};
    std::vector<std::string> deliveries;
    std::vector<std::unique_ptr<PairPhone>> visitors;
    std::optional<PairingDoor> door;
    std::unique_ptr<platform::Listener> listener;
};

TEST_F(PairingDoorTest, LetsInThePhoneWithAllThatItHasSaid) {
    const Bytes frame = introduction('s');
    comes({.data = frame, .connectsAt = 3s, .timePerByte = 10ms});
    const std::unique_ptr<platform::Stream> stream = accept();
    EXPECT_NEAR(world.clock.elapsed(), 3.04, 0.001) << "the length is enough";
    EXPECT_EQ(world.run(readExactly(*stream, 2)), Bytes(frame.begin(), frame.begin() + 2)) << "in any pieces";
    EXPECT_EQ(world.run(readExactly(*stream, frame.size() - 2)), Bytes(frame.begin() + 2, frame.end()));
    stream->cancel();
    finish();
    EXPECT_THAT(deliveries, IsEmpty());
}

TEST_F(PairingDoorTest, IsNotHeldUpByThoseWhoSayNothing) {
    std::vector<PairPhone*> silent;
    for (int number = 0; number < 5; ++number) {
        silent.push_back(&comes({.data = {}, .connectsAt = 1s}));
    }
    comes({.data = introduction('s'), .connectsAt = 2s});
    const std::unique_ptr<platform::Stream> stream = accept();
    EXPECT_EQ(world.clock.elapsed(), 2);
    settle();
    for (const PairPhone* visitor : silent) {
        EXPECT_EQ(visitor->end, End::reset) << "nothing is left of them when it is decided";
        EXPECT_EQ(visitor->endedAt, 2);
    }
    stream->cancel();
    finish();
}

TEST_F(PairingDoorTest, HasFiveSecondsOfPatience) {
    const PairPhone& silent = comes({.data = {}, .connectsAt = 1s});
    const PairPhone& slow = comes({.data = Bytes(4, std::byte{0}), .connectsAt = 1s, .timePerByte = 2s});
    comes({.data = introduction('s'), .connectsAt = 60s});
    const std::unique_ptr<platform::Stream> stream = accept();
    EXPECT_EQ(world.clock.elapsed(), 60);
    EXPECT_EQ(silent.endedAt, 6);
    EXPECT_EQ(silent.end, End::reset);
    EXPECT_LE(slow.endedAt, 7) << "the next byte finds the connection gone";
    EXPECT_EQ(slow.end, End::reset);
    stream->cancel();
    finish();
}

TEST_F(PairingDoorTest, TurnsAwayAPairedPhoneThatWantsToDeliverAndTellsOfIt) {
    world.network.sources.push_back("192.168.1.9:4");
    const PairPhone& paired = comes({.data = greeting(), .connectsAt = 1s});
    comes({.data = introduction('s'), .connectsAt = 2s});
    const std::unique_ptr<platform::Stream> stream = accept();
    EXPECT_THAT(deliveries, ElementsAre("192.168.1.9:4"));
    EXPECT_THAT(paired.received, IsEmpty()) << "an answer would be taken for one of the service";
    EXPECT_NE(paired.end, End::none);
    EXPECT_EQ(paired.endedAt, 1);
    stream->cancel();
    finish();
}

TEST_F(PairingDoorTest, TellsOfFewDeliveriesHoweverManyThereAre) {
    for (int number = 0; number < 3 * limits::linesOfStrangers; ++number) {
        comes({.data = greeting(), .connectsAt = 1s});
    }
    comes({.data = introduction('s'), .connectsAt = 2s});
    const std::unique_ptr<platform::Stream> stream = accept();
    EXPECT_THAT(deliveries, SizeIs(limits::linesOfStrangers));
    stream->cancel();
    finish();
}

TEST_F(PairingDoorTest, TellsAnIntroductionOfTheSameLengthFromAGreetingByItsSeal) {
    const Bytes ofThisPairing = introduction('s', "text"); // 4 bytes and 28 of the seal
    ASSERT_EQ(ofThisPairing.size(), greeting().size());
    comes({.data = introduction('x', "text"), .connectsAt = 1s}); // of another one
    comes({.data = ofThisPairing, .connectsAt = 2s});
    const std::unique_ptr<platform::Stream> stream = accept();
    EXPECT_EQ(world.clock.elapsed(), 2);
    EXPECT_EQ(world.run(readExactly(*stream, ofThisPairing.size())), ofThisPairing);
    EXPECT_THAT(deliveries, SizeIs(1));
    stream->cancel();
    finish();
}

TEST_F(PairingDoorTest, LeavesALongIntroductionThatDoesNotOpenToThePairing) {
    comes({.data = introduction('x', "longer than four bytes"), .connectsAt = 1s});
    const std::unique_ptr<platform::Stream> stream = accept();
    EXPECT_EQ(world.clock.elapsed(), 1);
    stream->cancel();
    finish();
}

TEST_F(PairingDoorTest, ListensToSixtyFourAtOnceAndSendsTheFirstAwayForOneMore) {
    std::vector<PairPhone*> silent;
    for (std::size_t number = 0; number <= PairingDoor::maxVisitors; ++number) {
        silent.push_back(&comes({.data = {}, .connectsAt = 1s + 1ms * number}));
    }
    comes({.data = introduction('s'), .connectsAt = 2s});
    const std::unique_ptr<platform::Stream> stream = accept();
    settle();
    // One more had to go for the phone.
    EXPECT_NEAR(silent[0]->endedAt, 1.064, 0.0001);
    EXPECT_EQ(silent[1]->endedAt, 2);
    EXPECT_EQ(silent.back()->endedAt, 2);
    stream->cancel();
    finish();
}

TEST_F(PairingDoorTest, IsClosedToThoseWhoComeWhenItIsDecided) {
    comes({.data = introduction('s'), .connectsAt = 1s});
    const PairPhone& late = comes({.data = introduction('s'), .connectsAt = 2s});
    const PairPhone& silent = comes({.data = {}, .connectsAt = 2s});
    const std::unique_ptr<platform::Stream> stream = accept();
    world.run(world.clock.sleep(2s));
    for (const PairPhone* visitor : {&late, &silent}) {
        EXPECT_EQ(visitor->end, End::reset);
        EXPECT_EQ(visitor->endedAt, 2);
    }
    EXPECT_FALSE(stream->hasEnded());
    stream->cancel();
    finish();
    const PairPhone& later = comes({.data = greeting(), .connectsAt = Seconds(world.clock.elapsed()) + 1s});
    world.run(world.clock.sleep(2s));
    EXPECT_EQ(later.end, End::refused) << "the port can be given back";
}

TEST_F(PairingDoorTest, EndsThePairingWhoseListenerIsClosed) {
    const PairPhone& silent = comes({.data = {}, .connectsAt = 1s});
    world.alongside(closeAt(3s));
    EXPECT_EQ(world.failure<platform::SystemError>(listener->accept(world.context.get_executor())).description(),
              "listener cancelled");
    EXPECT_EQ(world.clock.elapsed(), 3);
    finish();
    EXPECT_EQ(silent.endedAt, 3);
}

TEST_F(PairingDoorTest, ClosesAPortAtWhichNobodyHasWaited) {
    finish();
    const PairPhone& late = comes({.data = introduction('s'), .connectsAt = 1s});
    world.run(world.clock.sleep(2s));
    EXPECT_EQ(late.end, End::refused);
}

TEST_F(PairingDoorTest, LeavesNothingBehindIfItGoesInTheMiddle) {
    const PairPhone& silent = comes({.data = {}, .connectsAt = 1s});
    comes({.data = introduction('s'), .connectsAt = 2s});
    const std::unique_ptr<platform::Stream> stream = accept();
    listener.reset();
    door.reset();
    settle();
    EXPECT_NE(silent.end, End::none);
    stream->cancel();
    const PairPhone& late = comes({.data = introduction('s'), .connectsAt = 3s});
    world.run(world.clock.sleep(2s));
    EXPECT_EQ(late.end, End::refused);
}

TEST_F(PairingDoorTest, KnowsThePortThatItWasGiven) {
    EXPECT_EQ(door->port(), port);
    EXPECT_EQ(listener->port(), port);
    finish();
}

} // namespace
} // namespace orlinth::host
