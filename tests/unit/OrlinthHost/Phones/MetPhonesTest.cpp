#include "OrlinthHost/Phones/MetPhones.h"

#include "OrlinthHost/Phones/PairedPhones.h"
#include "fakes/HomeNetwork.h"

#include <gmock/gmock.h>

namespace orlinth::host {
namespace {

using platform::NeighbourState;
using testing::IsEmpty;
using testing::SizeIs;

/// At home, where the record of a paired phone has .30.
class MetPhonesTest : public testing::Test {
protected:
    MetPhonesTest() {
        joinHome(world);
        world.routes.putOnLink(ip("192.168.7.30"));
        record.peer_ip = "192.168.7.30";
        home.peers().upsert(record);
    }

    void meet(const MacAddress& mac, const NetworkId& network) {
        memory.reached(record.peer_pubkey, {.host = host("192.168.7.30"), .mac = mac, .network = network});
    }
    /// The neighbour table has this device at the phone's address.
    void put(const MacAddress& mac) { world.neighbours.put(neighbour("192.168.7.30", NeighbourState::reachable, mac)); }
    [[nodiscard]] bool isAnothers() const { return isAtAnothersAddress(home, record); }
    [[nodiscard]] bool learn() {
        return learnIfPaired(home, record.peer_pubkey, [&](AddressMemory& met) {
            met.reached(record.peer_pubkey, {.host = host("192.168.7.57")});
        });
    }

    fakes::World world;
    Home home{.system = world.system, .executor = world.context.get_executor()};
    AddressMemory memory{world.files, world.clock, world.log, home.dataDirectory()};
    PeerRecord record = world.phoneRecord();
    const NetworkId elsewhere = NetworkId::of({10, 1, 4, 0}, 24, routerMac);
};

TEST_F(MetPhonesTest, AreAtAnothersAddressIfThatHasAnotherHardwareAddressThanInThisNetworkBefore) {
    meet(phoneMac, homeNetwork);
    EXPECT_FALSE(isAnothers()) << "nobody answers there";
    put(phoneMac);
    EXPECT_FALSE(isAnothers());
    put(otherMac);
    EXPECT_TRUE(isAnothers());
    meet(otherMac, elsewhere);
    EXPECT_FALSE(isAnothers()) << "it has had that one too";
}

TEST_F(MetPhonesTest, MayHaveAnyHardwareAddressInANetworkInWhichTheyWereNotMet) {
    put(otherMac);
    EXPECT_FALSE(isAnothers());
    meet(phoneMac, elsewhere);
    EXPECT_FALSE(isAnothers());
    meet(phoneMac, homeNetwork);
    world.neighbours.remove(neighbour("192.168.7.1", NeighbourState::reachable, routerMac));
    EXPECT_FALSE(isAnothers()) << "nobody knows which network this is";
}

TEST_F(MetPhonesTest, AreThemselvesWithTheHardwareAddressOfTheirRecord) {
    meet(phoneMac, homeNetwork);
    put(otherMac);
    record.peer_mac = otherMac.text();
    EXPECT_FALSE(isAnothers());
    record.peer_ip = "pixel.example";
    record.peer_mac.clear();
    EXPECT_FALSE(isAnothers()) << "a name is not asked for";
}

TEST_F(MetPhonesTest, AreRememberedWhileTheyArePairedAndNotAfterwards) {
    EXPECT_TRUE(learn());
    EXPECT_THAT(memory.addressesOf(record.peer_pubkey), SizeIs(1));
    static_cast<void>(PairedPhones(home).remove(record, world.computerKey.publicKey()));
    EXPECT_FALSE(learn());
    EXPECT_THAT(memory.addressesOf(record.peer_pubkey), IsEmpty());
}

TEST_F(MetPhonesTest, AreNotRememberedIfNobodyKnowsWhetherTheyArePaired) {
    world.files.put(home.peers().fileURL(), "rubbish");
    EXPECT_FALSE(learn());
    EXPECT_THAT(memory.addressesOf(record.peer_pubkey), IsEmpty());
}

} // namespace
} // namespace orlinth::host
