#include "OrlinthCore/Sending/OutgoingConnection.h"

#include "OrlinthCore/Sending/SendError.h"
#include "fakes/CancelMidway.h"
#include "fakes/World.h"
#include "platform/Spawn.h"

#include <asio/bind_cancellation_slot.hpp>
#include <asio/cancellation_signal.hpp>
#include <asio/error.hpp>
#include <gtest/gtest.h>

#include <array>
#include <cerrno>

namespace orlinth {
namespace {

using fakes::World;

class OutgoingConnection : public testing::Test {
protected:
    static constexpr const char* host = "203.0.113.2";
    Task<std::unique_ptr<platform::Stream>> open(std::uint16_t port, Seconds timeout,
                                                 WhenRefused whenRefused = WhenRefused::fail) {
        return openConnection(world.network, world.clock, host, port, world.context.get_executor(), timeout,
                              whenRefused);
    }
    void failAfter(Seconds time, int number) { world.network.makeFailWithErrno(host, number, world.clock, time); }
    /// The port is open from then on.
    void opensAt(Seconds instant) { world.alongside(listenAt(world, instant)); }
    static Task<> listenAt(World& theWorld, Seconds instant) {
        co_await theWorld.clock.sleep(instant);
        theWorld.network.makeAnswer(host);
        const auto listener =
            theWorld.network.listen({.port = 7000, .keepAlive = std::nullopt}, theWorld.context.get_executor());
        const auto stream = co_await listener->accept(theWorld.context.get_executor());
    }
    World world;
};

TEST_F(OutgoingConnection, IsReturnedOnceItIsEstablished) {
    const auto listener = world.network.listen({.port = 7000, .keepAlive = std::nullopt}, world.context.get_executor());
    const std::unique_ptr<platform::Stream> stream = world.run(open(7000, 5s));
    EXPECT_EQ(stream->remoteEndpoint(), "203.0.113.2:7000");
    EXPECT_EQ(world.clock.pendingAlarms(), 0U) << "the deadline is taken back";
}

TEST_F(OutgoingConnection, IsNotCancelledByTheDeadlineOnceItIsUp) {
    const auto listener = world.network.listen({.port = 7000, .keepAlive = std::nullopt}, world.context.get_executor());
    const std::unique_ptr<platform::Stream> stream = world.run(open(7000, 5s));
    world.run(world.clock.sleep(60s));
    EXPECT_FALSE(dynamic_cast<fakes::MemoryStream&>(*stream).isCancelled());
}

TEST_F(OutgoingConnection, ToPortZeroFailsBeforeAnythingIsTried) {
    const auto error = world.failure<SendError>(open(0, 5s));
    EXPECT_EQ(error.which(), SendError::Case::network);
    EXPECT_EQ(error.description(), "network: invalid port 0");
    EXPECT_TRUE(world.network.attempts.empty());
}

TEST_F(OutgoingConnection, ThatIsRefusedFailsAtOnceWithTheSystemsWords) {
    const auto error = world.failure<SendError>(open(7000, 5s));
    EXPECT_EQ(error.which(), SendError::Case::network);
    EXPECT_EQ(error.detail(), "Connection refused");
    EXPECT_EQ(world.clock.elapsed(), 0.0);
}

TEST_F(OutgoingConnection, ThatIsNeverAnsweredEndsAtTheDeadline) {
    world.network.makeSilent("203.0.113.2");
    const auto error = world.failure<SendError>(open(7000, 2500ms));
    EXPECT_EQ(error.description(), "network: connect timed out");
    EXPECT_DOUBLE_EQ(world.clock.elapsed(), 2.5);
}

constexpr std::array unreachable{EHOSTUNREACH, EHOSTDOWN, ENETUNREACH, ENETDOWN, EADDRNOTAVAIL};

SendError::Reason reasonOf(const std::exception_ptr& cause) {
    try {
        std::rethrow_exception(cause);
    } catch (const SendError& error) {
        return error.reason();
    }
}

TEST_F(OutgoingConnection, ToAHostThatCannotBeReachedIsTriedEveryHalfSecondUntilItCan) {
    for (const int number : unreachable) {
        SCOPED_TRACE(number);
        const double start = world.clock.elapsed();
        const std::size_t before = world.network.attempts.size();
        failAfter(0s, number);
        opensAt(1700ms);
        const std::unique_ptr<platform::Stream> stream = world.run(open(7000, 5s));
        EXPECT_DOUBLE_EQ(world.clock.elapsed() - start, 2.0);
        EXPECT_EQ(world.network.attempts.size() - before, 5U); // at 0, 0.5, 1, 1.5 and 2
        stream->cancel();
        fakes::runUntilIdle(world.context, world.clock);
    }
}

TEST_F(OutgoingConnection, ToAHostThatCannotBeReachedEndsAtTheDeadline) {
    for (const int number : unreachable) {
        SCOPED_TRACE(number);
        const double start = world.clock.elapsed();
        failAfter(3100ms, number); // as long as Linux asks for a neighbour's address
        const auto error = world.failure<SendError>(open(7000, 5s));
        EXPECT_EQ(error.description(), "network: connect timed out");
        EXPECT_EQ(error.reason(), SendError::Reason::timedOut);
        const bool isHost = number == EHOSTUNREACH || number == EHOSTDOWN;
        EXPECT_EQ(reasonOf(error.cause()),
                  isHost ? SendError::Reason::hostUnreachable : SendError::Reason::networkUnreachable);
        EXPECT_DOUBLE_EQ(world.clock.elapsed() - start, 5.0);
    }
}

TEST_F(OutgoingConnection, ToANameThatDoesNotResolveWaitsForItUntilTheDeadline) {
    for (const std::error_code code :
         {std::error_code(asio::error::host_not_found), std::error_code(asio::error::host_not_found_try_again)}) {
        const double start = world.clock.elapsed();
        world.network.makeFail(host, code, world.clock);
        const auto error = world.failure<SendError>(open(7000, 2200ms));
        EXPECT_EQ(error.description(), "network: connect timed out");
        EXPECT_EQ(reasonOf(error.cause()), SendError::Reason::unknownName);
        EXPECT_DOUBLE_EQ(world.clock.elapsed() - start, 2.2);
    }
}

TEST_F(OutgoingConnection, ToAHostThatCannotBeReachedFailsAtOnceWithoutADeadline) {
    for (const Seconds none : {Seconds(0), Seconds(-1)}) {
        failAfter(0s, EHOSTUNREACH);
        const auto error = world.failure<SendError>(open(7000, none, WhenRefused::tryAgain));
        EXPECT_EQ(error.detail(), "No route to host");
        EXPECT_EQ(error.reason(), SendError::Reason::hostUnreachable);
        EXPECT_EQ(world.clock.elapsed(), 0.0);
    }
    EXPECT_EQ(world.network.attempts.size(), 2U);
}

TEST_F(OutgoingConnection, ThatFailsForAnotherReasonFailsAtOnce) {
    for (const int number : {EACCES, EINVAL, ETIMEDOUT, ECONNRESET}) {
        SCOPED_TRACE(number);
        failAfter(0s, number);
        const auto error = world.failure<SendError>(open(7000, 5s, WhenRefused::tryAgain));
        EXPECT_EQ(error.reason(), number == ETIMEDOUT ? SendError::Reason::timedOut : SendError::Reason::other);
        EXPECT_EQ(error.detail(), std::generic_category().message(number));
        EXPECT_EQ(world.clock.elapsed(), 0.0);
    }
}

TEST_F(OutgoingConnection, ThatIsRefusedAfterTheHostCouldNotBeReachedIsStillReportedAtOnce) {
    failAfter(0s, EHOSTUNREACH);
    world.alongside([](World& theWorld) -> Task<> {
        co_await theWorld.clock.sleep(700ms);
        theWorld.network.makeAnswer(host);
    }(world));
    const auto error = world.failure<SendError>(open(7000, 5s));
    EXPECT_EQ(error.reason(), SendError::Reason::refused);
    EXPECT_DOUBLE_EQ(world.clock.elapsed(), 1.0);
}

TEST_F(OutgoingConnection, ThatMayWaitForThePortIsTriedThroughRefusals) {
    opensAt(1200ms);
    const std::unique_ptr<platform::Stream> stream = world.run(open(7000, 5s, WhenRefused::tryAgain));
    EXPECT_DOUBLE_EQ(world.clock.elapsed(), 1.5);
    EXPECT_EQ(world.network.attempts.size(), 4U);
}

TEST_F(OutgoingConnection, ThatMayWaitForThePortEndsAtTheDeadline) {
    const auto error = world.failure<SendError>(open(7000, 5s, WhenRefused::tryAgain));
    EXPECT_EQ(error.description(), "network: connect timed out");
    EXPECT_EQ(reasonOf(error.cause()), SendError::Reason::refused);
    EXPECT_DOUBLE_EQ(world.clock.elapsed(), 5.0);
}

/// The system's errors in a session of another language.
class German : public std::error_category {
public:
    const char* name() const noexcept override { return "german"; }
    std::string message(int number) const override {
        switch (number) {
        case ECONNREFUSED:
            return "Verbindungsaufbau abgelehnt";
        case ETIMEDOUT:
            return "Die Wartezeit für die Verbindung ist abgelaufen";
        default:
            return "Keine Route zum Zielrechner";
        }
    }
    std::error_condition default_error_condition(int number) const noexcept override {
        return {number, std::generic_category()};
    }
};

TEST_F(OutgoingConnection, TellsWhyItFailedWhateverLanguageTheSystemSpeaks) {
    static const German german;
    using Reason = SendError::Reason;
    for (const auto& [number, reason] : {std::pair(ECONNREFUSED, Reason::refused),
                                         {ETIMEDOUT, Reason::timedOut},
                                         {EHOSTDOWN, Reason::hostUnreachable}}) {
        world.network.makeFail(host, std::error_code(number, german), world.clock);
        const auto error = world.failure<SendError>(open(7000, 0s));
        EXPECT_EQ(error.reason(), reason);
        EXPECT_EQ(error.detail(), german.message(number));
    }
}

TEST_F(OutgoingConnection, WithoutADeadlineWaitsUntilItIsCancelled) {
    world.network.makeSilent("203.0.113.2");
    asio::cancellation_signal stop;
    std::exception_ptr outcome;
    bool ended = false;
    platform::spawn(
        world.context.get_executor(),
        [](Task<std::unique_ptr<platform::Stream>> task) -> Task<> {
            const auto stream = co_await std::move(task);
        }(open(7000, 0s)),
        stop.slot(),
        [&](std::exception_ptr error) {
            outcome = std::move(error);
            ended = true;
        });
    world.run(world.clock.sleep(86'400s));
    EXPECT_FALSE(ended);
    stop.emit(asio::cancellation_type::terminal);
    fakes::runUntilIdle(world.context, world.clock);
    ASSERT_TRUE(ended);
    fakes::expectCancellation(outcome);
}

class CancelledConnection : public OutgoingConnection, public testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(, CancelledConnection, testing::Bool(),
                         [](const auto& info) { return info.param ? "BetweenTries" : "DuringATry"; });

TEST_P(CancelledConnection, UnderADeadlineIsNotReportedAsTimedOut) {
    if (GetParam()) {
        failAfter(700ms, EHOSTUNREACH); // the pause lasts until 1.2
    } else {
        world.network.makeSilent(host);
    }
    asio::cancellation_signal stop;
    std::exception_ptr outcome;
    platform::spawn(
        world.context.get_executor(),
        [](Task<std::unique_ptr<platform::Stream>> task) -> Task<> {
            const auto stream = co_await std::move(task);
        }(open(7000, 30s)),
        stop.slot(), [&](std::exception_ptr error) { outcome = std::move(error); });
    world.run(world.clock.sleep(1s));
    stop.emit(asio::cancellation_type::terminal);
    fakes::runUntilIdle(world.context, world.clock);
    fakes::expectCancellation(outcome);
    EXPECT_DOUBLE_EQ(world.clock.elapsed(), 1.0);
}

} // namespace
} // namespace orlinth
