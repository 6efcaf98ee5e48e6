#include "OrlinthHost/Phones/SharedPeers.h"

#include "OrlinthCore/Share/ShareOutbox.h"
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
