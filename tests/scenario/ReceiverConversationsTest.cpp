// Whatever an authenticated phone says, in whatever order: one outcome a connection, no file outside the folder.

#include "fakes/ReceiverWorld.h"

#include <gtest/gtest.h>

#include <random>

namespace orlinth {
namespace {

using fakes::ReceiverWorld;
using fakes::ScriptedPeer;
using Row = TransportMessage;

class Babbler {
public:
    explicit Babbler(unsigned seed) : random_(seed) {}

    /// One connection that says a few things and hangs up.
    static Task<> talk(ReceiverWorld& world, Babbler& babbler) {
        const auto phone = co_await ScriptedPeer::connect(world, ReceiverWorld::port, world.phoneKey);
        const std::size_t count = babbler.random_() % 8;
        bool isQuiet = count > 0; // brings tokens, if anything, and hangs up in time
        try {
            for (std::size_t i = 0; i < count; ++i) {
                co_await babbler.sayOne(*phone, isQuiet);
            }
            if (babbler.random_() % 2 == 0) {
                const Seconds pause(static_cast<double>(babbler.random_() % 70));
                isQuiet = isQuiet && pause < Receiver::idleTimeout;
                co_await world.clock.sleep(pause);
            }
            babbler.quiet_ += isQuiet ? 1 : 0;
        } catch (const WireConnection::Error&) {
            // The service has had enough.
        }
        phone->close();
    }

    /// Connections that there is nothing to report of.
    [[nodiscard]] std::size_t quiet() const { return quiet_; }

private:
    Task<> sayOne(ScriptedPeer& phone, bool& isQuiet) {
        constexpr std::size_t token = 5;
        const std::string text = anyText();
        const std::size_t choice = random_() % 14;
        isQuiet = isQuiet && choice == token;
        switch (choice) {
        case 0:
            return phone.send(Row::resume(text, ByteOffset(-1)));
        case 1:
            return phone.send(Row::clipboard(text, text));
        case 2:
            return phone.send(Row::setName(text));
        case 3:
            return phone.send(Row::nameUpdate(text));
        case 4:
            return phone.send(Row::decline());
        case token:
            return phone.send(Row::tokenUpdate(text));
        case 6:
            return phone.wire().sendLengthPrefixed(damaged_);
        case 7:
        case 8:
            return phone.send(Row::done());
        case 9:
        case 10:
            return phone.sendBinary(toBytes(text));
        default:
            return phone.send(Row::fileOffer(text, static_cast<std::int64_t>(random_()) - 2'000'000'000, text,
                                             "ID " + std::to_string(random_() % 3)));
        }
    }

    std::string anyText() {
        static const std::string pieces[] = {
            "a",        "..", "/",      "\\",         std::string(1, '\0'), "\n",
            ".partial", " ",  "\u202e", ".meta.json", "peer.json",          std::string(300, 'x')};
        std::string text;
        for (std::size_t i = random_() % 5; i > 0; --i) {
            text += pieces[random_() % std::size(pieces)];
        }
        return text;
    }

    std::mt19937 random_;
    Bytes damaged_ = Bytes(20);
    std::size_t quiet_ = 0;
};

TEST(ReceiverConversations, EndInExactlyOneOutcomeEachAndLeaveNothingOutsideTheFolder) {
    for (unsigned seed = 0; seed < 60; ++seed) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        ReceiverWorld world;
        world.putPeers({world.phoneRecord(), world.tabletRecord()});
        world.files.put("/home/ann/precious", "keep me");
        world.start();
        Babbler babbler(seed);
        constexpr std::size_t connections = 6;
        for (std::size_t i = 0; i < connections; ++i) {
            world.alongside(Babbler::talk(world, babbler));
            if (i % 2 == 0) {
                world.settle();
            }
        }
        fakes::runUntilIdle(world.context, world.clock);
        EXPECT_TRUE(world.running);
        EXPECT_EQ(world.ends() + babbler.quiet(), connections);
        EXPECT_EQ(world.authenticated.size(), connections);
        EXPECT_EQ(ActiveTransfers::shared().ownerCount(), 0U);
        EXPECT_EQ(ActiveTransfers::shared().drainingCount(), 0U);
        EXPECT_EQ(world.text("/home/ann/precious"), "keep me");
        for (const std::string& file : world.files.allFiles()) {
            const platform::Path parent = platform::Path(file).parent_path();
            EXPECT_TRUE(parent == ReceiverWorld::folder || parent == ReceiverWorld::peerFile.parent_path() ||
                        file == "/home/ann/precious")
                << file;
        }
        const PeerBook book = PeerStore(world.files, world.system.directories).loadBook();
        EXPECT_EQ(book.peers.size(), 2U);
        ASSERT_NE(book.find(world.tabletRecord().peer_pubkey), nullptr);
        EXPECT_EQ(*book.find(world.tabletRecord().peer_pubkey), world.tabletRecord()) << "another phone's record";
    }
}

} // namespace
} // namespace orlinth
