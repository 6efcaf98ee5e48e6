#include "OrlinthCore/Receiving/FrameRoom.h"

#include "platform/Cancelled.h"
#include "platform/Spawn.h"

#include <asio/cancellation_signal.hpp>
#include <asio/io_context.hpp>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <random>
#include <thread>
#include <vector>

namespace orlinth {
namespace {

constexpr std::size_t largest = WireConnection::maxFrameBytes;
constexpr std::size_t dataFrame = limits::dataFrameBytes;

class FrameRoomTest : public testing::Test {
protected:
    /// One connection that claims room.
    struct Connection {
        Connection(FrameRoom& room, std::string phone) : share(std::in_place, room, PeerKey(std::move(phone))) {}
        std::optional<FrameRoom::Share> share;
        asio::cancellation_signal stop;
        bool isGranted = false;
        bool isCancelled = false;
    };
    using Ref = std::unique_ptr<Connection>;

    static Task<> claim(Connection& connection, std::size_t bytes) {
        co_await connection.share->claim(bytes);
        connection.isGranted = true;
    }

    Ref connect(const std::string& phone, std::size_t bytes, bool inTransfer = false) {
        auto connection = std::make_unique<Connection>(room, phone);
        if (inTransfer) {
            connection->share->beginTransfer();
        }
        again(*connection, bytes);
        return connection;
    }
    void again(Connection& connection, std::size_t bytes) {
        connection.isGranted = false;
        platform::spawn(context.get_executor(), claim(connection, bytes), connection.stop.slot(),
                        [&connection](const std::exception_ptr& error) { connection.isCancelled = error != nullptr; });
        settle();
    }
    /// Until there is no room for one more of the usual size.
    [[nodiscard]] std::vector<Ref> fill() {
        std::vector<Ref> holders;
        while (room.heldBytes() + static_cast<std::int64_t>(dataFrame) <= limits::frameBytes) {
            holders.push_back(connect(std::to_string(holders.size() / limits::connectionsOfOnePhone), dataFrame));
            EXPECT_TRUE(holders.back()->isGranted);
        }
        return holders;
    }
    void settle() {
        context.restart();
        context.poll();
    }

    asio::io_context context;
    FrameRoom room;
};

TEST_F(FrameRoomTest, APhoneHasOneLargeFrameAtATimeOutsideATransfer) {
    const Ref first = connect("a", largest);
    const Ref second = connect("a", dataFrame + 1);
    const Ref small = connect("a", dataFrame);
    const Ref other = connect("b", largest);
    EXPECT_TRUE(first->isGranted && small->isGranted && other->isGranted);
    EXPECT_FALSE(second->isGranted);
    first->share->release();
    settle();
    EXPECT_TRUE(second->isGranted);
}

TEST_F(FrameRoomTest, ATransferMayHaveSeveralAndNoPhoneHasAllOfTheRoom) {
    const Ref first = connect("a", 15 << 20, true);
    const Ref second = connect("a", 15 << 20, true);
    const Ref third = connect("a", 15 << 20, true);
    EXPECT_TRUE(first->isGranted && second->isGranted);
    EXPECT_FALSE(third->isGranted);
    const Ref other = connect("b", largest, true);
    EXPECT_TRUE(other->isGranted) << "who waits for itself is in nobody's way";
    second->share.reset();
    settle();
    EXPECT_TRUE(third->isGranted);
}

TEST_F(FrameRoomTest, NeverHoldsMoreThanItHasAndGoesInOrder) {
    std::vector<Ref> holders = fill();
    const Ref usual = connect("y", dataFrame);
    const Ref shorter = connect("z", dataFrame / 10);
    EXPECT_FALSE(usual->isGranted);
    EXPECT_FALSE(shorter->isGranted) << "nobody overtakes, or the longer one might never get through";
    EXPECT_EQ(room.waiting(), 2U);
    holders.pop_back();
    settle();
    EXPECT_TRUE(usual->isGranted && shorter->isGranted);
    EXPECT_LE(room.heldBytes(), limits::frameBytes);
    EXPECT_EQ(room.waiting(), 0U);
}

TEST_F(FrameRoomTest, WhoLeavesTheLineLetsTheOthersPass) {
    const std::vector<Ref> holders = fill();
    const Ref usual = connect("y", dataFrame);
    const Ref shorter = connect("z", dataFrame / 10);
    usual->stop.emit(asio::cancellation_type::terminal);
    settle();
    EXPECT_TRUE(usual->isCancelled);
    EXPECT_FALSE(usual->isGranted);
    EXPECT_TRUE(shorter->isGranted);
}

TEST_F(FrameRoomTest, LargeFramesLeaveRoomForTheUsualOnesAndGoInAnOrderOfTheirOwn) {
    Ref first = connect("a", largest, true);
    const Ref second = connect("b", largest, true);
    const Ref third = connect("c", largest, true);
    const Ref fourth = connect("d", dataFrame + 1, true);
    EXPECT_TRUE(first->isGranted && second->isGranted);
    EXPECT_FALSE(third->isGranted);
    EXPECT_FALSE(fourth->isGranted) << "it would fit, but came behind";
    for (int number = 0; number < 15; ++number) {
        EXPECT_TRUE(connect("e", dataFrame)->isGranted);
    }
    first->share.reset();
    settle();
    EXPECT_TRUE(third->isGranted && fourth->isGranted);
}

TEST_F(FrameRoomTest, IsEmptyAgainWhenEverybodyHasGone) {
    {
        const Ref holder = connect("a", largest);
        const Ref waiting = connect("a", largest);
        again(*holder, dataFrame); // gives back what it had before
        EXPECT_TRUE(holder->isGranted && waiting->isGranted);
        waiting->stop.emit(asio::cancellation_type::terminal);
        settle();
    }
    EXPECT_EQ(room.heldBytes(), 0);
    EXPECT_EQ(room.waiting(), 0U);
}

Task<> claimAgainAndAgain(FrameRoom& room, std::string phone, unsigned seed, int& done) {
    std::mt19937 random(seed);
    FrameRoom::Share share(room, PeerKey(std::move(phone)));
    for (int i = 0; i < 200; ++i) {
        if (random() % 8 == 0) {
            share.beginTransfer();
        }
        co_await share.claim(1 + random() % largest);
        EXPECT_LE(room.heldBytes(), limits::frameBytes);
        std::this_thread::yield();
        share.release();
    }
    ++done;
}

TEST(FrameRoomThreads, GiveEverybodyWhatTheyWantInTheEnd) {
    constexpr std::size_t connections = 24;
    FrameRoom room;
    std::vector<std::unique_ptr<asio::io_context>> contexts;
    std::vector<int> done(connections, 0);
    for (std::size_t i = 0; i < connections; ++i) {
        contexts.push_back(std::make_unique<asio::io_context>());
        platform::spawn(contexts.back()->get_executor(),
                        claimAgainAndAgain(room, std::to_string(i % 5), static_cast<unsigned>(i), done.at(i)),
                        [](const std::exception_ptr& error) { EXPECT_FALSE(error); });
    }
    {
        std::vector<std::jthread> threads;
        for (auto& context : contexts) {
            threads.emplace_back([&context] { context->run(); });
        }
    }
    EXPECT_EQ(done, std::vector<int>(connections, 1));
    EXPECT_EQ(room.heldBytes(), 0);
}

} // namespace
} // namespace orlinth
