#include "OrlinthCore/Sending/OutgoingConnection.h"

#include "OrlinthCore/Sending/SendError.h"
#include "fakes/World.h"

#include <asio/bind_cancellation_slot.hpp>
#include <asio/cancellation_signal.hpp>
#include <gtest/gtest.h>

namespace orlinth {
namespace {

using fakes::World;

class OutgoingConnection : public testing::Test {
protected:
    Task<std::unique_ptr<platform::Stream>> open(std::uint16_t port, double timeout) {
        return openConnection(world.system, "203.0.113.2", port, world.context.get_executor(), timeout);
    }
    World world;
};

TEST_F(OutgoingConnection, IsReturnedOnceItIsEstablished) {
    const auto listener = world.network.listen({.port = 7000, .keepAlive = std::nullopt}, world.context.get_executor());
    const std::unique_ptr<platform::Stream> stream = world.run(open(7000, 5));
    EXPECT_EQ(stream->remoteEndpoint(), "203.0.113.2:7000");
    EXPECT_EQ(world.clock.pendingAlarms(), 0U) << "the deadline is taken back";
}

TEST_F(OutgoingConnection, IsNotCancelledByTheDeadlineOnceItIsUp) {
    const auto listener = world.network.listen({.port = 7000, .keepAlive = std::nullopt}, world.context.get_executor());
    const std::unique_ptr<platform::Stream> stream = world.run(open(7000, 5));
    world.run(world.clock.sleep(60));
    EXPECT_FALSE(dynamic_cast<fakes::MemoryStream&>(*stream).isCancelled());
}

TEST_F(OutgoingConnection, ToPortZeroFailsBeforeAnythingIsTried) {
    const auto error = world.failure<SendError>(open(0, 5));
    EXPECT_EQ(error.which(), SendError::Case::network);
    EXPECT_EQ(error.description(), "network: invalid port 0");
    EXPECT_TRUE(world.network.attempts.empty());
}

TEST_F(OutgoingConnection, ThatIsRefusedFailsAtOnceWithTheSystemsWords) {
    const auto error = world.failure<SendError>(open(7000, 5));
    EXPECT_EQ(error.which(), SendError::Case::network);
    EXPECT_EQ(error.detail(), "Connection refused");
    EXPECT_EQ(world.clock.elapsed(), 0.0);
}

TEST_F(OutgoingConnection, ThatIsNeverAnsweredEndsAtTheDeadline) {
    world.network.makeSilent("203.0.113.2");
    const auto error = world.failure<SendError>(open(7000, 2.5));
    EXPECT_EQ(error.description(), "network: connect timed out");
    EXPECT_DOUBLE_EQ(world.clock.elapsed(), 2.5);
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
        }(open(7000, 0)),
        stop.slot(),
        [&](std::exception_ptr error) {
            outcome = std::move(error);
            ended = true;
        });
    world.run(world.clock.sleep(86'400));
    EXPECT_FALSE(ended);
    stop.emit(asio::cancellation_type::terminal);
    fakes::runUntilIdle(world.context, world.clock);
    ASSERT_TRUE(ended);
    try {
        std::rethrow_exception(outcome);
    } catch (const std::exception& error) {
        EXPECT_TRUE(platform::isCancellation(error)) << error.what();
    }
}

TEST_F(OutgoingConnection, CancelledUnderADeadlineIsNotReportedAsTimedOut) {
    world.network.makeSilent("203.0.113.2");
    asio::cancellation_signal stop;
    std::exception_ptr outcome;
    platform::spawn(
        world.context.get_executor(),
        [](Task<std::unique_ptr<platform::Stream>> task) -> Task<> {
            const auto stream = co_await std::move(task);
        }(open(7000, 30)),
        stop.slot(), [&](std::exception_ptr error) { outcome = std::move(error); });
    world.run(world.clock.sleep(1));
    stop.emit(asio::cancellation_type::terminal);
    fakes::runUntilIdle(world.context, world.clock);
    ASSERT_TRUE(outcome);
    try {
        std::rethrow_exception(outcome);
    } catch (const std::exception& error) {
        EXPECT_TRUE(platform::isCancellation(error)) << error.what();
    }
    EXPECT_DOUBLE_EQ(world.clock.elapsed(), 1.0);
}

} // namespace
} // namespace orlinth
