#include "OrlinthHost/Phones/SharedPeers.h"

#include "OrlinthCore/Share/ShareOutbox.h"
#include "OrlinthHost/HumanText.h"
#include "OrlinthHost/Phones/AddressMemory.h"
#include "OrlinthHost/Phones/LastPhone.h"
#include "fakes/World.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>

namespace orlinth::host {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class SharedPeersTest : public testing::Test {
protected:
    SharedPeersTest() {
        setenv("TZ", "UTC0", 1);
        tzset();
    }
    ~SharedPeersTest() override {
        unsetenv("TZ");
        tzset();
    }

    [[nodiscard]] ShareOutbox outbox() { return {world.files, world.system.directories}; }
    /// Name and subtitle of each phone that the share sheet shows.
    [[nodiscard]] std::vector<std::string> shown() {
        std::vector<std::string> lines;
        for (const ShareOutbox::SharePeer& peer : outbox().readPeers()) {
            lines.push_back(peer.hostname + ": " + peer.subtitle);
        }
        return lines;
    }

    /// The phone connects to this computer.
    void meet() {
        AddressMemory(world.files, world.clock, world.log, home.dataDirectory())
            .came(world.phoneRecord().peer_pubkey,
                  {.host = HostAddress::parse("192.168.7.57").value(), .mac = {}, .network = {}});
    }

    fakes::World world;
    Home home{world.system, world.context.get_executor()};
};

TEST_F(SharedPeersTest, TellPhonesOfOneNameApartByWhereTheyAreAndSinceWhenTheyArePaired) {
    PeerRecord phone = world.phoneRecord();
    phone.paired_at_epoch_ms = fromEpochMilliseconds(1'773'057'900'000);
    PeerRecord namesake = phone;
    namesake.peer_pubkey = platform::PrivateKey::generate().publicKey().peerKey();
    namesake.peer_ip = "203.0.113.9";
    namesake.paired_at_epoch_ms = {};
    home.peers().writeBook({{phone, namesake}});
    updateSharedPeers(home);
    EXPECT_THAT(shown(), ElementsAre("Pixel-8: 203.0.113.2 · paired 2026-03-09", "Pixel-8: 203.0.113.9"));
}

TEST_F(SharedPeersTest, BeginWithTheDefaultPhone) {
    PeerBook book;
    for (const char* name : {"A", "B", "C", "D"}) {
        PeerRecord phone = world.phoneRecord();
        phone.peer_hostname = name;
        phone.peer_pubkey = platform::PrivateKey::generate().publicKey().peerKey();
        phone.paired_at_epoch_ms = fromEpochMilliseconds(static_cast<std::int64_t>(1000 + book.peers.size()));
        book.peers.push_back(phone);
    }
    home.peers().writeBook(book);
    const auto names = [this] {
        std::string all;
        for (const ShareOutbox::SharePeer& peer : outbox().readPeers()) {
            all += peer.hostname;
        }
        return all;
    };
    updateSharedPeers(home);
    EXPECT_EQ(names(), "DABC") << "paired last";
    EXPECT_TRUE(LastPhone(home).remember(book.peers[1].peer_pubkey));
    updateSharedPeers(home);
    EXPECT_EQ(names(), "BACD") << "sent to last";
    home.defaultPhone = "C";
    updateSharedPeers(home);
    EXPECT_EQ(names(), "CABD") << "chosen";
}

TEST_F(SharedPeersTest, SayWhenAPhoneWasLastMet) {
    PeerRecord phone = world.phoneRecord();
    phone.paired_at_epoch_ms = fromEpochMilliseconds(1'773'057'900'000);
    home.peers().writeBook({{phone}});
    meet();
    updateSharedPeers(home);
    EXPECT_THAT(shown(), ElementsAre("Pixel-8: last here " + humanTime(world.clock.epochMilliseconds()) +
                                     " · paired 2026-03-09"));
}

TEST_F(SharedPeersTest, AreWrittenOnceAMinuteHoweverOftenAPhoneIsMetAndAtOnceIfTheStoreChanges) {
    home.peers().writeBook({{world.phoneRecord()}});
    SharedPeersUpdates updates(home);
    const auto pass = [this](Seconds time) { world.run(world.clock.sleep(time)); };
    updates.update();
    pass(0s);
    EXPECT_THAT(shown(), ElementsAre("Pixel-8: 203.0.113.2"));
    meet();
    updates.update();
    pass(59s);
    EXPECT_THAT(shown(), ElementsAre("Pixel-8: 203.0.113.2"));
    pass(1s);
    EXPECT_THAT(shown(), ElementsAre(HasSubstr("last here ")));
    const std::size_t before = world.files.mutations();
    for (int i = 0; i < 100; ++i) {
        updates.update();
        pass(10s);
    }
    EXPECT_EQ(world.files.mutations(), before) << "nothing has changed";
    PeerRecord renamed = world.phoneRecord();
    renamed.peer_hostname = "Pixel-9";
    home.peers().writeBook({{renamed}});
    updates.update();
    pass(0s);
    EXPECT_THAT(shown(), ElementsAre(HasSubstr("Pixel-9: last here ")));
    pass(1s);
    meet();
    updates.update();
    pass(1s);
    world.run(updates.finish()); // and no alarm is left
}

TEST_F(SharedPeersTest, AreWrittenAtOnceIfTheLastPhoneIsAnotherOne) {
    PeerRecord other = world.phoneRecord();
    other.peer_hostname = "Tablet";
    other.peer_pubkey = platform::PrivateKey::generate().publicKey().peerKey();
    home.peers().writeBook({{world.phoneRecord(), other}});
    SharedPeersUpdates updates(home);
    for (const auto& [key, name] :
         {std::pair(world.phoneRecord().peer_pubkey, "Pixel-8"), std::pair(other.peer_pubkey, "Tablet")}) {
        EXPECT_TRUE(LastPhone(home).remember(key));
        updates.update();
        world.run(world.clock.sleep(0s));
        ASSERT_FALSE(shown().empty());
        EXPECT_THAT(shown().front(), testing::StartsWith(name));
    }
    const std::size_t before = world.files.mutations();
    updates.update();
    world.run(updates.finish());
    EXPECT_EQ(world.files.mutations(), before) << "nothing has changed";
}

TEST_F(SharedPeersTest, AreNoneOnceTheLastPhoneIsRemoved) {
    home.peers().writeBook({{world.phoneRecord()}});
    updateSharedPeers(home);
    home.peers().writeBook({});
    updateSharedPeers(home);
    EXPECT_THAT(shown(), IsEmpty());
}

TEST_F(SharedPeersTest, AreReadAndWrittenUnderOneLockSoThatTheNewestListWins) {
    home.peers().writeBook({{world.phoneRecord()}});
    const platform::Path lock = outbox().peersFileURL()->string() + ".lock";
    bool wasUnlocked = false;
    world.files.beforeEach([&](fakes::Operation operation, const platform::Path& path) {
        const bool isOfTheStore = operation == fakes::Operation::read && path == home.peers().fileURL();
        const bool isOfTheList = operation == fakes::Operation::rename;
        wasUnlocked = wasUnlocked || ((isOfTheStore || isOfTheList) && !world.files.isLocked(lock));
    });
    updateSharedPeers(home);
    world.files.beforeEach({});
    EXPECT_FALSE(wasUnlocked);
    EXPECT_FALSE(world.files.isLocked(lock));
    EXPECT_THAT(shown(), ElementsAre(HasSubstr("Pixel-8")));
}

TEST_F(SharedPeersTest, StayAsTheyWereAnd) {
    home.peers().writeBook({{world.phoneRecord()}});
    updateSharedPeers(home);
    home.peers().writeBook({});
    world.files.addFault({.operation = fakes::Operation::write, .errorNumber = ENOSPC});
    updateSharedPeers(home);
    world.files.clearFaults();
    EXPECT_THAT(shown(), ElementsAre(HasSubstr("Pixel-8")));
}

TEST_F(SharedPeersTest, StayAsTheyWereIfTheStoreCannotBeRead) {
    home.peers().writeBook({{world.phoneRecord()}});
    updateSharedPeers(home);
    world.files.put(home.peers().fileURL(), "{ruined");
    updateSharedPeers(home);
    EXPECT_THAT(shown(), ElementsAre(HasSubstr("Pixel-8")));
    EXPECT_THAT(world.log.messages(), ElementsAre(HasSubstr("cannot update the share sheet's list of phones: ")));
}

} // namespace
} // namespace orlinth::host
