#include "OrlinthHost/Phones/KnownKeys.h"

#include "OrlinthHost/Phones/RemovedPeers.h"
#include "fakes/ReceiverWorld.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

namespace orlinth::host {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

/// A receive service that at first knows nobody, and reads who is known whenever somebody has proved a key.
class KnownKeysTest : public testing::Test {
protected:
    KnownKeysTest() {
        world.make().setExpectedPeerPubkeys({});
        keys.emplace(home, *world.receiver, ownKey,
                     [this](const std::exception_ptr& error) { troubles.push_back(describe(error)); });
        world.receiver->beforeAuthorising = [this] { keys->refresh(); };
        world.start();
    }

    /// Whether the service serves whoever has this key.
    [[nodiscard]] bool serves(const platform::PrivateKey& key) {
        const auto phone = world.connectAs(key);
        bool isServed = true;
        try {
            static_cast<void>(world.offer(*phone, "a.txt", 10, "ID-" + std::to_string(++offers)));
        } catch (const WireConnection::Error&) {
            isServed = false;
        }
        phone->close();
        world.settle();
        return isServed;
    }
    [[nodiscard]] RemovedPeers removed() { return {world.files, home.dataDirectory()}; }
    /// Until a change would show in the files' times.
    void settleFiles() { world.pass(2s); }
    [[nodiscard]] std::size_t reads() const { return world.files.count(fakes::Operation::read); }
    [[nodiscard]] std::vector<std::string> told() {
        world.settle();
        return std::exchange(troubles, {});
    }

    fakes::ReceiverWorld world;
    Home home{world.system, world.context.get_executor()};
    const platform::PublicKey ownKey = world.computerKey.publicKey();
    std::vector<std::string> troubles;
    int offers = 0;
    std::optional<KnownKeys> keys;
};

TEST_F(KnownKeysTest, AreThoseOfTheStoreAsItIsWhenSomebodyConnects) {
    EXPECT_FALSE(serves(world.phoneKey));
    world.putPeers({world.phoneRecord()});
    EXPECT_TRUE(serves(world.phoneKey)) << "without a restart";
    EXPECT_FALSE(serves(world.tabletKey));
    world.putPeers({world.phoneRecord(), world.tabletRecord()});
    EXPECT_TRUE(serves(world.tabletKey));
    EXPECT_EQ(keys->pairedCount(), 2U);
    world.putPeers({world.tabletRecord()});
    EXPECT_FALSE(serves(world.phoneKey));
    EXPECT_EQ(keys->pairedCount(), 1U);
}

TEST_F(KnownKeysTest, AreNeverThisComputersOwnNorSomethingThatIsNoKey) {
    PeerRecord own = world.phoneRecord();
    own.peer_pubkey = ownKey.peerKey();
    PeerRecord unusable = world.phoneRecord();
    unusable.peer_pubkey = PeerKey("AAAA");
    world.putPeers({own, unusable, world.tabletRecord()});
    keys->refresh();
    EXPECT_EQ(keys->pairedCount(), 1U);
    EXPECT_FALSE(serves(world.computerKey));
    EXPECT_TRUE(serves(world.tabletKey));
}

TEST_F(KnownKeysTest, OfRemovedPhonesAreThoseThatAreToBeNotified) {
    removed().add(world.phoneKey.publicKey());
    keys->refresh();
    EXPECT_THAT(world.receiver->removedPeerPubkeys(), ElementsAre(world.phoneKey.publicKey()));
    removed().forget(world.phoneKey.publicKey());
    keys->refresh();
    EXPECT_THAT(world.receiver->removedPeerPubkeys(), IsEmpty());
}

TEST_F(KnownKeysTest, AreReadAgainOnlyWhenAFileHasChanged) {
    world.putPeers({world.phoneRecord()});
    removed().add(world.tabletKey.publicKey());
    settleFiles();
    keys->refresh();
    keys->refresh();
    const std::size_t before = reads();
    for (int i = 0; i < 100; ++i) {
        keys->refresh();
    }
    EXPECT_EQ(reads(), before);
    world.putPeers({world.tabletRecord()});
    keys->refresh();
    EXPECT_GT(reads(), before);
}

TEST_F(KnownKeysTest, OfAStoreThatCannotBeReadStayAsTheyWereAndItIsReportedOnce) {
    world.putPeers({world.phoneRecord()});
    EXPECT_TRUE(serves(world.phoneKey));
    world.files.put(fakes::ReceiverWorld::peerFile, "{ruined");
    EXPECT_TRUE(serves(world.phoneKey)) << "a damaged file locks nobody out";
    EXPECT_TRUE(serves(world.phoneKey));
    EXPECT_EQ(told().size(), 1U);
    settleFiles();
    world.files.put(fakes::ReceiverWorld::peerFile, "{ruined otherwise");
    keys->refresh();
    EXPECT_EQ(told().size(), 1U) << "somebody has tried to repair it";
    world.putPeers({world.tabletRecord()});
    EXPECT_TRUE(serves(world.tabletKey));
    EXPECT_THAT(told(), IsEmpty());
}

TEST_F(KnownKeysTest, AreReadWhenTheTroubleIsOverAlthoughTheFileHasNotChanged) {
    world.putPeers({world.phoneRecord()});
    settleFiles();
    world.files.addFault({.operation = fakes::Operation::open, .errorNumber = EMFILE, .nameEnding = "peer.json"});
    keys->refresh();
    keys->refresh();
    EXPECT_THAT(told(), ElementsAre(HasSubstr("Too many open files")));
    EXPECT_EQ(keys->pairedCount(), 0U);
    world.files.clearFaults();
    keys->refresh();
    EXPECT_EQ(keys->pairedCount(), 1U);
}

TEST_F(KnownKeysTest, OfOneFileAreReadAlsoWhereTheOtherIsRuined) {
    world.files.put(home.dataDirectory() / RemovedPeers::fileName, "{ruined");
    world.putPeers({world.phoneRecord()});
    EXPECT_TRUE(serves(world.phoneKey));
    EXPECT_THAT(told(), ElementsAre(HasSubstr("cannot read the list of removed phones: ")));
}

TEST_F(KnownKeysTest, ReadTheStoreBeforeTheListOfThoseWhoWereRemoved) {
    // Whoever removes a phone writes the list first. In the other order the phone would be in neither.
    world.putPeers({world.phoneRecord()});
    removed().add(world.tabletKey.publicKey());
    std::vector<std::string> order;
    world.files.beforeEach([&order](fakes::Operation operation, const platform::Path& path) {
        if (operation == fakes::Operation::open && (order.empty() || order.back() != path.filename().string())) {
            order.push_back(path.filename().string());
        }
    });
    keys->refresh();
    world.files.beforeEach({});
    EXPECT_THAT(order, ElementsAre("peer.json", "removed.json"));
}

} // namespace
} // namespace orlinth::host
