// How the connection of an offered file ends, as its sender sees it: in good order only if the file lies under its
// name.

#include "OrlinthCore/Receiving/ReceiveTransfer.h"
#include "fakes/ReceiverWorld.h"

#include <gmock/gmock.h>

#include <cerrno>

namespace orlinth {
namespace {

using fakes::Operation;
using fakes::ReceiverWorld;
using fakes::ScriptedPeer;
using Row = TransportMessage;

const platform::Path folder = ReceiverWorld::folder;
constexpr const char* reset = "wire I/O error: Connection reset by peer";
constexpr const char* orderly = "wire EOF before expected bytes";

/// What happens to a transfer of which five bytes have come.
struct Cause {
    std::string name;
    std::function<void(ReceiverWorld&, ScriptedPeer&)> happens;
};

void PrintTo(const Cause& cause, std::ostream* out) {
    *out << cause.name;
}

void send(ReceiverWorld& world, ScriptedPeer& phone, TransportMessage message) {
    world.send(phone, std::move(message));
}

void failEvery(ReceiverWorld& world, Operation operation) {
    world.files.addFault({.operation = operation, .errorNumber = EIO});
}

const Cause causes[] = {
    {"DamagedFrame",
     [](ReceiverWorld& world, ScriptedPeer& phone) {
         world.run(phone.wire().sendLengthPrefixed(asBytes("nothing that opens")));
         world.settle();
     }},
    {"FrameWithoutASeal",
     [](ReceiverWorld& world, ScriptedPeer& phone) {
         world.run(phone.wire().sendLengthPrefixed(asBytes("")));
         world.settle();
     }},
    {"FullDisk",
     [](ReceiverWorld& world, ScriptedPeer& phone) {
         world.files.setCapacity(0);
         world.sendData(phone, "56789");
     }},
    {"FailedFlush",
     [](ReceiverWorld& world, ScriptedPeer& phone) {
         failEvery(world, Operation::flush);
         send(world, phone, Row::done());
     }},
    {"FailedRename",
     [](ReceiverWorld& world, ScriptedPeer& phone) {
         failEvery(world, Operation::rename);
         send(world, phone, Row::done());
     }},
    {"FailedFlushOfTheFolder",
     [](ReceiverWorld& world, ScriptedPeer& phone) {
         failEvery(world, Operation::flushDirectory);
         send(world, phone, Row::done());
     }},
    {"SecondOffer", [](ReceiverWorld& world,
                       ScriptedPeer& phone) { send(world, phone, Row::fileOffer("b.txt", 1, "text/plain", "ID-2")); }},
    {"Resume",
     [](ReceiverWorld& world, ScriptedPeer& phone) { send(world, phone, Row::resume("ID-1", ByteOffset())); }},
    {"AMessageThatEndsTheConversation",
     [](ReceiverWorld& world, ScriptedPeer& phone) { send(world, phone, Row::clipboard("text", "text/plain")); }},
};

class AbortiveClose : public testing::TestWithParam<Cause> {
protected:
    AbortiveClose() { world.putPeers({world.phoneRecord()}); }

    /// An offer and half of its data.
    std::unique_ptr<ScriptedPeer> halfAFile() {
        std::unique_ptr<ScriptedPeer> phone = world.phone();
        world.offer(*phone, "a.txt");
        world.sendData(*phone, "01234");
        return phone;
    }
    std::string endOf(ScriptedPeer& phone) { return world.run(phone.howItEnds()); }

    ReceiverWorld world;
};

INSTANTIATE_TEST_SUITE_P(Causes, AbortiveClose, testing::ValuesIn(causes),
                         [](const auto& info) { return info.param.name; });

TEST_P(AbortiveClose, IsWhatTheSenderSeesOfTheService) {
    world.start();
    const auto phone = halfAFile();
    GetParam().happens(world, *phone);
    EXPECT_EQ(endOf(*phone), reset);
    EXPECT_TRUE(world.transfers.empty());
    world.files.clearFaults();
}

/// Runs the one-file receiver beside the test until it ends.
Task<> receiveOnce(ReceiverWorld& world, std::string& outcome) {
    ReceiveRequest request{.staticKey = world.computerKey,
                           .expectedPeerPubkey = world.phoneKey.publicKey(),
                           .downloadsDir = folder,
                           .port = ReceiverWorld::port};
    try {
        static_cast<void>(co_await receiveOneTransfer(world.system, std::move(request)));
        outcome = "received";
    } catch (const std::exception& error) {
        outcome = describe(error);
    }
}

TEST_P(AbortiveClose, IsWhatTheSenderSeesOfAOneFileReceiver) {
    std::string outcome;
    world.alongside(receiveOnce(world, outcome));
    world.settle();
    const auto phone = halfAFile();
    GetParam().happens(world, *phone);
    EXPECT_EQ(endOf(*phone), reset);
    EXPECT_NE(outcome, "received");
    EXPECT_FALSE(outcome.empty()) << "it has ended";
    world.files.clearFaults();
}

using OrderlyClose = AbortiveClose;

TEST_F(OrderlyClose, MeansThatTheFileLiesUnderItsName) {
    world.start();
    const auto phone = halfAFile();
    world.sendData(*phone, "56789");
    world.send(*phone, Row::done());
    EXPECT_EQ(endOf(*phone), orderly);
    EXPECT_EQ(world.text(folder / "a.txt"), "0123456789");
}

TEST_F(OrderlyClose, MeansTheSameOfAOneFileReceiver) {
    std::string outcome;
    world.alongside(receiveOnce(world, outcome));
    world.settle();
    const auto phone = halfAFile();
    world.send(*phone, Row::done());
    EXPECT_EQ(endOf(*phone), orderly);
    EXPECT_EQ(outcome, "received");
    EXPECT_EQ(world.text(folder / "a.txt"), "01234");
}

TEST_F(OrderlyClose, FollowsARefusal) {
    world.make().approveOffer = [](Receiver::Offer) -> Task<bool> { co_return false; };
    world.start();
    const auto phone = world.phone();
    world.send(*phone, Row::fileOffer("a.txt", 10, "text/plain", "ID-1"));
    world.run(phone->expect<Row::Decline>());
    EXPECT_EQ(endOf(*phone), orderly);
}

TEST_F(OrderlyClose, FollowsTheFarewellOfAPhoneThatWasRemoved) {
    world.start();
    const auto phone = world.phone();
    world.receiver->setRemovedPeerPubkeys({world.phoneKey.publicKey()});
    world.send(*phone, Row::fileOffer("a.txt", 10, "text/plain", "ID-1"));
    world.run(phone->expect<Row::Unpair>());
    EXPECT_EQ(endOf(*phone), orderly);
}

using AbortedTransfer = AbortiveClose;

TEST_F(AbortedTransfer, IsOneThatANewerConnectionHasTaken) {
    world.start();
    const auto old = halfAFile();
    const auto fresh = world.phone();
    EXPECT_EQ(world.offer(*fresh, "a.txt"), 5);
    EXPECT_EQ(endOf(*old), reset);
}

TEST_F(AbortedTransfer, IsOneWhoseServiceHasStopped) {
    world.start();
    const auto phone = halfAFile();
    world.stopAndWait();
    EXPECT_EQ(endOf(*phone), reset);
}

TEST_F(AbortedTransfer, IsOneThatFellSilent) {
    world.start();
    const auto phone = halfAFile();
    EXPECT_EQ(endOf(*phone), reset);
    EXPECT_GE(world.clock.elapsed(), Receiver::idleTimeout.count());
}

TEST_F(AbortedTransfer, IsOneThatNobodyHasAnsweredWhenTheServiceStops) {
    world.make().approveOffer = [this](Receiver::Offer) -> Task<bool> {
        co_await world.clock.sleep(1000s);
        co_return true;
    };
    world.start();
    const auto phone = world.phone();
    world.send(*phone, Row::fileOffer("a.txt", 10, "text/plain", "ID-1"));
    world.stopAndWait();
    EXPECT_EQ(endOf(*phone), reset);
}

TEST_F(AbortedTransfer, IsOneWhoseSenderHasEndedItsDirection) {
    world.start();
    const auto phone = halfAFile();
    EXPECT_EQ(world.run(phone->wire().closeAfterFarewell(5s)), WireConnection::Farewell::brokeOff);
}

} // namespace
} // namespace orlinth
