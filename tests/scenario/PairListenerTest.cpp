#include "OrlinthCore/Pairing/PairListener.h"

#include "OrlinthCore/Pairing/PairCrypto.h"
#include "OrlinthCore/Pairing/PairWire.h"
#include "fakes/CancelMidway.h"
#include "fakes/PairPhone.h"
#include "fakes/World.h"
#include "platform/SystemError.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

namespace orlinth {
namespace {

using fakes::WireFaults;
using End = fakes::PairPhone::End;
using Phone = fakes::PairPhone;
using fakes::World;
using testing::ElementsAre;
using testing::StartsWith;
using Case = PairListener::Error::Case;

constexpr std::uint16_t port = 7300;
constexpr Seconds timeout = 30s;
const std::string refused = "Connection refused";
const std::string introduction = R"({"peer_hostname":"Pixel-8"})";

/// Whether a phone that comes now is refused.
bool isClosed(World& world, std::uint16_t number = port) {
    try {
        static_cast<void>(world.run(connect(world, number)));
    } catch (const platform::SystemError& error) {
        return error.description() == refused;
    }
    return false;
}

std::unique_ptr<platform::Listener> listen(World& world, std::uint16_t number = port) {
    return world.network.listen({.port = number, .keepAlive = std::nullopt}, world.context.get_executor());
}

Task<> forget(Task<PairListener::Result> task) {
    co_await std::move(task);
}

Task<> cancelAt(World& world, PairListener& listener, Seconds time, int times = 1) {
    co_await world.clock.sleep(time - Seconds(world.clock.elapsed()));
    for (int i = 0; i < times; ++i) {
        listener.cancel();
    }
}

SecretBytes secretOf(char fill) {
    return SecretBytes(asBytes(std::string(32, fill)));
}

Bytes sealed(const std::string& plaintext = introduction, char secretFill = 's') {
    const SecretBytes key = PairCrypto::deriveAEADKey(secretOf(secretFill).reveal());
    return PairCrypto::sealIntroduction(asBytes(plaintext), key);
}

Bytes framed(const std::string& plaintext = introduction, char secretFill = 's') {
    return PairWire::encodeFrame(sealed(plaintext, secretFill));
}

Bytes firstBytes(const Bytes& bytes, std::size_t count) {
    return {bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(count)};
}

Bytes prefixOf(std::uint32_t length) {
    return {std::byte(length >> 24U), std::byte(length >> 16U & 0xFFU), std::byte(length >> 8U & 0xFFU),
            std::byte(length & 0xFFU)};
}

/// One attempt in a world of its own.
struct Attempt {
    PairListener::Result receiveFrom(Phone& phone) {
        world.alongside(play(world, port, phone));
        PairListener::Result result = world.run(listener.awaitIntroduction());
        settle(phone);
        return result;
    }
    /// The error that the phone brings about. It sees the end of the connection at that moment.
    PairListener::Error failureFrom(Phone& phone) {
        world.alongside(play(world, port, phone));
        PairListener::Error error = world.failure<PairListener::Error>(listener.awaitIntroduction());
        const double failedAt = world.clock.elapsed();
        settle(phone);
        EXPECT_NE(phone.end, End::none);
        EXPECT_EQ(phone.endedAt, failedAt);
        return error;
    }
    /// The attempt is over: nothing is open, and it does not begin again.
    void settle(const Phone& phone) {
        fakes::runUntilIdle(world.context, world.clock);
        EXPECT_TRUE(phone.received.empty()) << "the computer wrote to the phone";
        expectFinished(listener);
    }
    void expectFinished(PairListener& attempt) {
        EXPECT_TRUE(isClosed(world));
        const double before = world.clock.elapsed();
        EXPECT_EQ(world.failure<PairListener::Error>(attempt.awaitIntroduction()).which(), Case::cancelled);
        EXPECT_EQ(world.clock.elapsed(), before);
        EXPECT_TRUE(isClosed(world));
    }

    World world;
    PairListener listener{world.system, secretOf('s'), port, timeout};
};

class PairListenerScenario : public testing::Test, protected Attempt {};

void expectError(const PairListener::Error& error, Case expected, const std::string& text) {
    EXPECT_EQ(error.which(), expected);
    EXPECT_EQ(error.description(), text);
}

TEST(PairListenerError, HasTheTextOfItsCase) {
    using Error = PairListener::Error;
    expectError(Error::listenerStartFailed("x"), Case::listenerStartFailed, "NWListener failed to start: x");
    expectError(Error::connectionFailed("x"), Case::connectionFailed, "incoming connection failed: x");
    expectError(Error::readFailed("x"), Case::readFailed, "read failed: x");
    expectError(Error::decryptFailed("x"), Case::decryptFailed, "decrypt failed: x");
    expectError(Error::alreadyRunning(), Case::alreadyRunning, "PairListener already running");
    expectError(Error::timedOut(), Case::timedOut, "pair-mode timeout");
    expectError(Error::cancelled(), Case::cancelled, "cancelled");
}

// Success.

TEST_F(PairListenerScenario, HandsOverTheOpenedIntroductionAndThePhonesEndpoint) {
    Phone phone{.data = framed()};
    const PairListener::Result result = receiveFrom(phone);
    EXPECT_EQ(toText(result.phoneIntroductionPlaintext), introduction);
    EXPECT_EQ(result.remoteEndpoint, "203.0.113.1:40112");
    EXPECT_EQ(phone.end, End::closed);
    EXPECT_EQ(phone.endedAt, 1);
    EXPECT_THAT(world.queues.labels, ElementsAre("orlinth.pair-listener"));
}

TEST_F(PairListenerScenario, OpensNothingBeforeItIsAsked) {
    EXPECT_TRUE(isClosed(world));
    listener.cancel();
}

TEST_F(PairListenerScenario, TakesAnEmptyIntroduction) {
    Phone phone{.data = framed("")};
    EXPECT_TRUE(receiveFrom(phone).phoneIntroductionPlaintext.empty());
}

TEST_F(PairListenerScenario, TakesTheLargestFrame) {
    const std::string largest(PairWire::maxFrameBytes - PairCrypto::overheadBytes, 'x');
    Phone phone{.data = framed(largest)};
    ASSERT_EQ(phone.data.size(), 4 + 65536);
    EXPECT_EQ(toText(receiveFrom(phone).phoneIntroductionPlaintext), largest);
}

TEST_F(PairListenerScenario, TakesAFrameThatArrivesByteByByte) {
    Phone phone{.data = framed(), .timePerByte = 250ms};
    EXPECT_EQ(toText(receiveFrom(phone).phoneIntroductionPlaintext), introduction);
    EXPECT_EQ(phone.endedAt, 1 + 0.25 * static_cast<double>(phone.data.size()));
}

TEST_F(PairListenerScenario, TakesAFrameThatIsReadByteByByte) {
    world.network.faults.push_back({WireFaults{.pieceBytes = 1}, {}});
    Phone phone{.data = framed()};
    EXPECT_EQ(toText(receiveFrom(phone).phoneIntroductionPlaintext), introduction);
}

TEST_F(PairListenerScenario, TakesAFrameWhoseSenderHasClosedBehindIt) {
    Phone phone{.data = framed(), .thenFinishes = true};
    EXPECT_EQ(toText(receiveFrom(phone).phoneIntroductionPlaintext), introduction);
}

TEST_F(PairListenerScenario, LooksAtNothingBehindTheFrame) {
    Phone phone{.data = concatenate({framed(), asBytes("more")})};
    EXPECT_EQ(toText(receiveFrom(phone).phoneIntroductionPlaintext), introduction);
}

TEST_F(PairListenerScenario, TakesAnIntroductionInTheLastMomentOfPairMode) {
    Phone phone{.data = framed(), .connectsAt = timeout - 1ms};
    EXPECT_EQ(toText(receiveFrom(phone).phoneIntroductionPlaintext), introduction);
}

// Frames that are none.

TEST_F(PairListenerScenario, FailsWhereTheStreamEndsWithinThePrefix) {
    for (std::size_t count = 0; count < PairWire::lengthPrefixBytes; ++count) {
        SCOPED_TRACE(count);
        Phone phone{.data = firstBytes(framed(), count), .thenFinishes = true};
        expectError(Attempt().failureFrom(phone), Case::readFailed, "read failed: prefix EOF");
    }
}

TEST_F(PairListenerScenario, FailsWhereTheStreamEndsWithinThePayload) {
    const Bytes frame = framed();
    for (std::size_t count = PairWire::lengthPrefixBytes; count < frame.size(); ++count) {
        SCOPED_TRACE(count);
        Phone phone{.data = firstBytes(frame, count), .thenFinishes = true};
        expectError(Attempt().failureFrom(phone), Case::readFailed, "read failed: payload short read");
    }
}

TEST_F(PairListenerScenario, FailsAtAPrefixOfMoreThanTheLargestFrame) {
    Phone phone{.data = prefixOf(65537)};
    expectError(failureFrom(phone), Case::readFailed,
                "read failed: bad length prefix: pair frame size 65537 exceeds 65536");
}

TEST_F(PairListenerScenario, FailsAtTheLargestPrefixThatThereIs) {
    Phone phone{.data = prefixOf(0xFFFF'FFFF)};
    expectError(failureFrom(phone), Case::readFailed,
                "read failed: bad length prefix: pair frame size 4294967295 exceeds 65536");
}

TEST_F(PairListenerScenario, ReportsAResetInTheSystemsWordsWhereverItHappens) {
    const Bytes frame = framed();
    for (std::size_t after = 1; after < frame.size(); ++after) {
        SCOPED_TRACE(after);
        Attempt own;
        own.world.network.faults.push_back({WireFaults{.resetAfter = after}, {}});
        Phone phone{.data = frame};
        expectError(own.failureFrom(phone), Case::readFailed, "read failed: Connection reset by peer");
    }
}

TEST_F(PairListenerScenario, RefusesAnEmptyFrame) {
    Phone phone{.data = prefixOf(0)};
    expectError(failureFrom(phone), Case::decryptFailed, "decrypt failed: wire ciphertext < 16-byte tag");
}

TEST_F(PairListenerScenario, RefusesAFrameThatIsOneByteShorterThanNonceAndTag) {
    Phone phone{.data = PairWire::encodeFrame(firstBytes(sealed(""), 27))};
    expectError(failureFrom(phone), Case::decryptFailed, "decrypt failed: wire ciphertext < 16-byte tag");
}

TEST_F(PairListenerScenario, RefusesAnIntroductionSealedUnderAnotherSecret) {
    Phone phone{.data = framed(introduction, 'x')};
    const PairListener::Error error = failureFrom(phone);
    EXPECT_EQ(error.which(), Case::decryptFailed);
    EXPECT_THAT(error.description(), StartsWith("decrypt failed: ChaChaPoly.open failed: "));
    EXPECT_EQ(phone.end, End::closed);
}

TEST_F(PairListenerScenario, RefusesAFrameWithOneBitFlippedAnywhere) {
    const Bytes frame = framed("0123456789abcdef0123"); // 48 bytes: the flip in the prefix's last byte makes it 32
    ASSERT_EQ(frame.size(), 4U + 48U);
    for (std::size_t at = 0; at < frame.size(); ++at) {
        SCOPED_TRACE(at);
        Attempt own;
        own.world.network.faults.push_back({WireFaults{.flipBitAt = at}, {}});
        Phone phone{.data = frame, .thenFinishes = true};
        const PairListener::Error error = own.failureFrom(phone);
        EXPECT_EQ(error.which(), at < 3 ? Case::readFailed : Case::decryptFailed) << error.description();
        EXPECT_EQ(phone.endedAt, 1);
    }
}

// Other phones.

TEST_F(PairListenerScenario, RefusesASecondPhoneOnceTheFirstIsConnected) {
    Phone first{.data = framed(), .timePerByte = 125ms};
    Phone second{.data = framed(), .connectsAt = 2s};
    world.alongside(play(world, port, second));
    EXPECT_EQ(toText(receiveFrom(first).phoneIntroductionPlaintext), introduction);
    EXPECT_EQ(second.end, End::refused);
    EXPECT_EQ(second.endedAt, 2);
}

TEST_F(PairListenerScenario, ClosesThePortAtASecondPhoneThatWaitsAlready) {
    // The same phone opens two connections at once and goes on with the second: the first keeps silent.
    Phone phone{.data = framed(), .connections = 2};
    world.alongside(play(world, port, phone));
    const auto error = world.failure<PairListener::Error>(listener.awaitIntroduction());
    EXPECT_EQ(error.which(), Case::readFailed) << "its connections end together";
    EXPECT_EQ(phone.end, End::reset);
    EXPECT_EQ(phone.endedAt, 1) << "told at once, not at the end of pair mode";
    settle(phone);
}

// Time.

TEST_F(PairListenerScenario, TimesOutWithASilentPhoneAndClosesItsConnection) {
    Phone phone;
    expectError(failureFrom(phone), Case::timedOut, "pair-mode timeout");
    EXPECT_EQ(phone.end, End::closed);
    EXPECT_EQ(phone.endedAt, timeout.count());
}

TEST_F(PairListenerScenario, TimesOutInTheMiddleOfAFrame) {
    for (const std::size_t count : {1U, 3U, 4U, 20U}) {
        SCOPED_TRACE(count);
        Phone phone{.data = firstBytes(framed(), count)};
        EXPECT_EQ(Attempt().failureFrom(phone).which(), Case::timedOut);
        EXPECT_EQ(phone.end, End::closed);
        EXPECT_EQ(phone.endedAt, timeout.count());
    }
}

TEST_F(PairListenerScenario, TimesOutWithoutAnyPhoneAndClosesThePort) {
    Phone late{.data = framed(), .connectsAt = timeout + 1s};
    world.alongside(play(world, port, late));
    expectError(world.failure<PairListener::Error>(listener.awaitIntroduction()), Case::timedOut, "pair-mode timeout");
    EXPECT_EQ(world.clock.elapsed(), timeout.count());
    settle(late);
    EXPECT_EQ(late.end, End::refused);
}

TEST_F(PairListenerScenario, DoesNotGetLongerByAPhoneThatTrickles) {
    Phone phone{.data = framed(), .timePerByte = 10s};
    world.alongside(play(world, port, phone));
    EXPECT_EQ(world.failure<PairListener::Error>(listener.awaitIntroduction()).which(), Case::timedOut);
    EXPECT_EQ(world.clock.elapsed(), timeout.count());
    settle(phone);
    EXPECT_EQ(phone.end, End::reset);
}

TEST_F(PairListenerScenario, TimesOutAtOnceWhereNoTimeIsGiven) {
    for (const Seconds none : {Seconds(0), Seconds(-5)}) {
        SCOPED_TRACE(none);
        PairListener attempt(world.system, secretOf('s'), port, none);
        EXPECT_EQ(world.failure<PairListener::Error>(attempt.awaitIntroduction()).which(), Case::timedOut);
        EXPECT_LT(world.clock.elapsed(), 0.001);
        expectFinished(attempt);
    }
}

TEST_F(PairListenerScenario, LeavesNoAlarmBehindASuccess) {
    Phone phone{.data = framed()};
    receiveFrom(phone);
    EXPECT_EQ(world.clock.pendingAlarms(), 0U);
    EXPECT_EQ(world.clock.elapsed(), 1);
}

// Calls at the wrong time.

Task<> callAgainAt(World& world, PairListener& listener, Seconds time, std::optional<double>& refusedAt) {
    co_await world.clock.sleep(time);
    try {
        co_await listener.awaitIntroduction();
    } catch (const PairListener::Error& error) {
        expectError(error, Case::alreadyRunning, "PairListener already running");
        refusedAt = world.clock.elapsed();
    }
}

Task<> destroyAt(World& world, std::unique_ptr<PairListener>& listener, Seconds time) {
    co_await world.clock.sleep(time);
    listener.reset();
}

TEST_F(PairListenerScenario, RefusesASecondCallWhileOneIsPendingAndGoesOn) {
    Phone phone{.data = framed(), .connectsAt = 3s};
    std::optional<double> refusedAt;
    world.alongside(callAgainAt(world, listener, 2s, refusedAt));
    EXPECT_EQ(toText(receiveFrom(phone).phoneIntroductionPlaintext), introduction);
    EXPECT_EQ(refusedAt, 2);
}

TEST_F(PairListenerScenario, RefusesASecondCallWhileThePhoneIsReadAndGoesOn) {
    Phone phone{.data = framed(), .timePerByte = 125ms};
    std::optional<double> refusedAt;
    world.alongside(callAgainAt(world, listener, 2s, refusedAt));
    EXPECT_EQ(toText(receiveFrom(phone).phoneIntroductionPlaintext), introduction);
    EXPECT_EQ(refusedAt, 2);
}

TEST_F(PairListenerScenario, GoesOnWhenTheObjectIsGone) {
    auto brief = std::make_unique<PairListener>(world.system, secretOf('s'), port, timeout);
    world.alongside(destroyAt(world, brief, 1s));
    Phone phone{.data = framed(), .connectsAt = 2s};
    world.alongside(play(world, port, phone));
    EXPECT_EQ(toText(world.run(brief->awaitIntroduction()).phoneIntroductionPlaintext), introduction);
    EXPECT_EQ(brief, nullptr);
    EXPECT_TRUE(isClosed(world));
}

TEST_F(PairListenerScenario, TimesOutWhenTheObjectIsGone) {
    auto brief = std::make_unique<PairListener>(world.system, secretOf('s'), port, timeout);
    world.alongside(destroyAt(world, brief, 1s));
    EXPECT_EQ(world.failure<PairListener::Error>(brief->awaitIntroduction()).which(), Case::timedOut);
    EXPECT_EQ(world.clock.elapsed(), timeout.count());
}

TEST_F(PairListenerScenario, ClosesAPortThatItWasHandedWhenItIsDestroyedUnused) {
    auto unused = std::make_unique<PairListener>(world.system, secretOf('s'), port, timeout, listen(world));
    EXPECT_FALSE(isClosed(world));
    unused.reset();
    EXPECT_TRUE(isClosed(world));
}

// cancel().

TEST_F(PairListenerScenario, NeverBeginsOnceItWasCancelled) {
    listener.cancel();
    expectError(world.failure<PairListener::Error>(listener.awaitIntroduction()), Case::cancelled, "cancelled");
    EXPECT_EQ(world.clock.elapsed(), 0);
    expectFinished(listener);
}

TEST_F(PairListenerScenario, ClosesAPortThatItWasHandedWhenItIsCancelledBefore) {
    PairListener attempt(world.system, secretOf('s'), port, timeout, listen(world));
    attempt.cancel();
    fakes::runUntilIdle(world.context, world.clock);
    expectFinished(attempt);
}

TEST_F(PairListenerScenario, IsCancelledWhileItListens) {
    Phone late{.data = framed(), .connectsAt = 5s};
    world.alongside(play(world, port, late));
    world.alongside(cancelAt(world, listener, 2s));
    expectError(world.failure<PairListener::Error>(listener.awaitIntroduction()), Case::cancelled, "cancelled");
    EXPECT_EQ(world.clock.elapsed(), 2);
    settle(late);
    EXPECT_EQ(late.end, End::refused);
}

TEST_F(PairListenerScenario, IsCancelledWhileItReads) {
    for (const std::size_t count : {0U, 2U, 4U, 20U}) {
        SCOPED_TRACE(count);
        Attempt own;
        Phone phone{.data = firstBytes(framed(), count)};
        own.world.alongside(cancelAt(own.world, own.listener, 2s));
        expectError(own.failureFrom(phone), Case::cancelled, "cancelled");
        EXPECT_EQ(phone.end, End::closed);
        EXPECT_EQ(phone.endedAt, 2);
    }
}

TEST_F(PairListenerScenario, IsCancelledOnceHoweverOftenItIsTold) {
    world.alongside(cancelAt(world, listener, 2s, 3));
    expectError(world.failure<PairListener::Error>(listener.awaitIntroduction()), Case::cancelled, "cancelled");
    listener.cancel();
    fakes::runUntilIdle(world.context, world.clock);
    expectFinished(listener);
}

TEST_F(PairListenerScenario, KeepsItsSuccessWhenItIsCancelledAfterwards) {
    Phone phone{.data = framed()};
    world.alongside(play(world, port, phone));
    world.alongside(cancelAt(world, listener, 2s));
    EXPECT_EQ(toText(world.run(listener.awaitIntroduction()).phoneIntroductionPlaintext), introduction);
    settle(phone);
}

TEST_F(PairListenerScenario, KeepsItsFailureWhenItIsCancelledAfterwards) {
    Phone phone{.data = prefixOf(0)};
    world.alongside(cancelAt(world, listener, 2s));
    EXPECT_EQ(failureFrom(phone).which(), Case::decryptFailed);
}

/// A port at which something happens in the very moment in which a phone is accepted.
class PortWithMoment : public platform::Listener {
public:
    PortWithMoment(std::unique_ptr<platform::Listener> inner, std::function<void()> moment)
        : inner_(std::move(inner)), moment_(std::move(moment)) {}
    [[nodiscard]] Task<std::unique_ptr<platform::Stream>> accept(Executor executor) override {
        std::unique_ptr<platform::Stream> stream = co_await inner_->accept(std::move(executor));
        moment_();
        co_return stream;
    }
    [[nodiscard]] std::uint16_t port() const noexcept override { return inner_->port(); }
    void close() noexcept override { inner_->close(); }

private:
    std::unique_ptr<platform::Listener> inner_;
    std::function<void()> moment_;
};

TEST_F(PairListenerScenario, IsCancelledInTheMomentInWhichThePhoneIsAccepted) {
    PairListener* accepting = nullptr;
    auto inner = listen(world);
    PairListener attempt(world.system, secretOf('s'), port, timeout,
                         std::make_unique<PortWithMoment>(std::move(inner), [&accepting] { accepting->cancel(); }));
    accepting = &attempt;
    Phone phone;
    world.alongside(play(world, port, phone));
    expectError(world.failure<PairListener::Error>(attempt.awaitIntroduction()), Case::cancelled, "cancelled");
    EXPECT_EQ(world.clock.elapsed(), 1) << "a silent phone does not hold it up";
    fakes::runUntilIdle(world.context, world.clock);
    EXPECT_EQ(phone.end, End::closed);
    EXPECT_EQ(phone.endedAt, 1);
    expectFinished(attempt);
}

TEST_F(PairListenerScenario, ReportsAPortThatBreaksWhileItListens) {
    auto inner = listen(world);
    PairListener attempt(
        world.system, secretOf('s'), port, timeout,
        std::make_unique<PortWithMoment>(std::move(inner), [] { throw platform::SystemError::fromErrno(EMFILE); }));
    Phone phone;
    world.alongside(play(world, port, phone));
    expectError(world.failure<PairListener::Error>(attempt.awaitIntroduction()), Case::listenerStartFailed,
                "NWListener failed to start: Too many open files");
    fakes::runUntilIdle(world.context, world.clock);
    EXPECT_EQ(phone.end, End::closed);
    expectFinished(attempt);
}

// The task itself is cancelled.

TEST_F(PairListenerScenario, EndsWithItsTaskWhileItListens) {
    const std::exception_ptr error = fakes::cancelMidway(world.context, forget(listener.awaitIntroduction()));
    EXPECT_TRUE(fakes::isCancelled(error)) << (error ? describe(error) : "it ended well");
    EXPECT_EQ(world.clock.pendingAlarms(), 0U);
    expectFinished(listener);
}

TEST_F(PairListenerScenario, EndsWithItsTaskWhileItReads) {
    for (const std::size_t count : {0U, 2U, 4U, 20U}) {
        SCOPED_TRACE(count);
        World own;
        PairListener attempt(own.system, secretOf('s'), port, timeout, listen(own));
        const std::unique_ptr<platform::Stream> stream = own.run(connect(own, port));
        const Bytes start = firstBytes(framed(), count);
        own.run(stream->writeAll(start));
        const std::exception_ptr error = fakes::cancelMidway(own.context, forget(attempt.awaitIntroduction()));
        EXPECT_TRUE(fakes::isCancelled(error)) << (error ? describe(error) : "it ended well");
        EXPECT_EQ(own.clock.pendingAlarms(), 0U);
        Phone phone;
        own.run(receiveToTheEnd(*stream, phone));
        EXPECT_EQ(phone.end, End::closed);
        EXPECT_TRUE(isClosed(own));
        EXPECT_EQ(own.failure<PairListener::Error>(attempt.awaitIntroduction()).which(), Case::cancelled);
    }
}

// The port.

TEST_F(PairListenerScenario, CannotListenOnPortZero) {
    PairListener attempt(world.system, secretOf('s'), 0, timeout);
    expectError(world.failure<PairListener::Error>(attempt.awaitIntroduction()), Case::listenerStartFailed,
                "NWListener failed to start: invalid port 0");
    expectFinished(attempt);
}

TEST_F(PairListenerScenario, ReportsAPortInUseInTheSystemsWords) {
    const auto other = listen(world);
    expectError(world.failure<PairListener::Error>(listener.awaitIntroduction()), Case::listenerStartFailed,
                "NWListener failed to start: Address already in use");
    EXPECT_EQ(world.clock.elapsed(), 0);
    other->close();
    expectFinished(listener);
}

TEST_F(PairListenerScenario, UsesThePortThatItWasHanded) {
    auto handed = listen(world, 0);
    const std::uint16_t number = handed->port();
    PairListener attempt(world.system, secretOf('s'), port, timeout, std::move(handed));
    Phone phone{.data = framed()};
    Phone other{.data = framed(), .connectsAt = 500ms};
    world.alongside(play(world, number, phone));
    world.alongside(play(world, port, other));
    EXPECT_EQ(toText(world.run(attempt.awaitIntroduction()).phoneIntroductionPlaintext), introduction);
    EXPECT_EQ(other.end, End::refused);
    EXPECT_TRUE(isClosed(world, number));
}

TEST_F(PairListenerScenario, LeavesThePortToTheNextAttempt) {
    Phone silent;
    EXPECT_EQ(failureFrom(silent).which(), Case::timedOut);
    PairListener next(world.system, secretOf('n'), port, timeout);
    Phone phone{.data = framed(introduction, 'n'), .connectsAt = timeout + 1s};
    world.alongside(play(world, port, phone));
    EXPECT_EQ(toText(world.run(next.awaitIntroduction()).phoneIntroductionPlaintext), introduction);
}

TEST(PairListenerError, HasItsPayload) {
    EXPECT_EQ(PairListener::Error::readFailed("prefix EOF").detail(), "prefix EOF");
    EXPECT_EQ(PairListener::Error::readFailed("prefix EOF").description(), "read failed: prefix EOF");
    EXPECT_EQ(PairListener::Error::timedOut().detail(), "");
}

} // namespace
} // namespace orlinth
