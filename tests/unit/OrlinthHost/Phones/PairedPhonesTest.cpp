#include "OrlinthHost/Phones/PairedPhones.h"

#include "OrlinthCore/Share/ShareOutbox.h"
#include "OrlinthHost/HostError.h"
#include "OrlinthHost/Phones/AddressMemory.h"
#include "OrlinthHost/Phones/RemovedPeers.h"
#include "fakes/CrashTrials.h"
#include "fakes/World.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <optional>
#include <utility>
#include <vector>

namespace orlinth::host {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const platform::Path peerFile = "/home/ann/.local/share/Orlinth/peer.json";

class PairedPhonesTest : public testing::Test {
protected:
    [[nodiscard]] AddressMemory addresses() { return {world.files, world.clock, world.log, home.dataDirectory()}; }
    [[nodiscard]] static Meeting meeting(std::optional<MacAddress> mac = {}, std::optional<NetworkId> network = {}) {
        return {.host = HostAddress::parse("192.168.7.57", "wlan0").value(), .mac = mac, .network = std::move(network)};
    }
    /// The phone with a new key, at another address.
    [[nodiscard]] PeerRecord pairedAnew() const {
        PeerRecord record = phone;
        record.peer_pubkey = anewKey.publicKey().peerKey();
        record.peer_ip = "203.0.113.9";
        return record;
    }
    /// The same computer with another disk in it.
    void on(fakes::MemoryFileSystem& disk, const std::function<void(Home&)>& use) {
        platform::System system = world.systemOn(disk);
        Home own{system, world.context.get_executor()};
        use(own);
    }
    [[nodiscard]] AddressMemory memoryOf(Home& own) {
        return {own.system.files, world.clock, world.log, own.dataDirectory()};
    }
    [[nodiscard]] RemovedPeers removed() { return {world.files, home.dataDirectory()}; }
    [[nodiscard]] std::vector<std::string> names() const {
        std::vector<std::string> names;
        for (const PeerRecord& record : home.peers().loadBook().peers) {
            names.push_back(record.peer_hostname);
        }
        return names;
    }
    [[nodiscard]] bool isKnown() {
        const std::vector<platform::PublicKey> gone = removed().load();
        return home.peers().loadBook().find(key.peerKey()) != nullptr || std::ranges::find(gone, key) != gone.end();
    }

    fakes::World world;
    Home home{world.system, world.context.get_executor()};
    PairedPhones phones{home};
    const PeerRecord phone = world.phoneRecord();
    const platform::PublicKey key = world.phoneKey.publicKey();
    const platform::PublicKey ownKey = world.computerKey.publicKey();
    const platform::PrivateKey anewKey = platform::PrivateKey::generate();
    const MacAddress pixelMac = *MacAddress::parse("3e:5a:b4:01:02:03");
    const NetworkId atHome = *NetworkId::parse("9f86d081884c7d65");
};

TEST_F(PairedPhonesTest, RecordsAPhoneThatIsThenNotRemovedAnyMore) {
    removed().add(key);
    EXPECT_EQ(phones.record(phone).record, phone);
    EXPECT_THAT(names(), ElementsAre(phone.peer_hostname));
    EXPECT_THAT(removed().load(), IsEmpty());
}

TEST_F(PairedPhonesTest, RemovesAPhoneWhichIsNotifiedLater) {
    static_cast<void>(phones.record(phone));
    EXPECT_EQ(phones.remove(phone, ownKey), phone);
    EXPECT_THAT(names(), IsEmpty());
    EXPECT_THAT(removed().load(), ElementsAre(key));
    EXPECT_EQ(phones.remove(phone, ownKey), std::nullopt) << "somebody was quicker";
}

TEST_F(PairedPhonesTest, NeverNotifyThisComputerItself) {
    PeerRecord strange = phone;
    strange.peer_pubkey = ownKey.peerKey();
    static_cast<void>(phones.record(strange));
    EXPECT_EQ(phones.remove(strange, ownKey), strange);
    EXPECT_THAT(removed().load(), IsEmpty());
}

TEST_F(PairedPhonesTest, RenameAPhoneAlsoInTheShareSheet) {
    static_cast<void>(phones.record(phone));
    const std::optional<PeerRecord> renamed = phones.rename(phone.peer_pubkey, "\t Kitchen ");
    ASSERT_TRUE(renamed);
    EXPECT_EQ(*renamed, phone.withHostname("Kitchen")) << "and nothing else changes";
    EXPECT_THAT(names(), ElementsAre("Kitchen"));
    EXPECT_EQ(ShareOutbox(world.files, world.system.directories).readPeers().at(0).hostname, "Kitchen");
    EXPECT_EQ(phones.rename(ownKey.peerKey(), "Kitchen"), std::nullopt) << "no such phone";
}

TEST_F(PairedPhonesTest, GiveNoNameThatNobodyCanHaveOrThatAnotherPhoneHas) {
    PeerRecord other = phone;
    other.peer_pubkey = platform::PrivateKey::generate().publicKey().peerKey();
    other.peer_hostname = "Tablet";
    home.peers().writeBook({{phone, other}});
    for (const std::string& name :
         {std::string(), std::string(" \n"), std::string("\xff"), std::string("a\nb"), std::string(256, 'a'),
          std::string("Tablet"), std::string(" TABLET "), std::string("Tab\u200Blet")}) {
        EXPECT_THROW(static_cast<void>(phones.rename(phone.peer_pubkey, name)), HostError) << name;
    }
    EXPECT_THAT(names(), ElementsAre(phone.peer_hostname, "Tablet"));
    EXPECT_TRUE(phones.rename(other.peer_pubkey, "TABLET")) << "its own, in other letters";
    EXPECT_TRUE(phones.rename(other.peer_pubkey, std::string(255, 'a')));
}

TEST_F(PairedPhonesTest, ForgetWhereARemovedPhoneWasMet) {
    const PeerKey other = ownKey.peerKey();
    static_cast<void>(phones.record(phone));
    addresses().reached(phone.peer_pubkey, meeting());
    addresses().reached(other, meeting());
    static_cast<void>(phones.remove(phone, ownKey));
    EXPECT_THAT(addresses().addressesOf(phone.peer_pubkey), IsEmpty());
    EXPECT_EQ(addresses().addressesOf(other).size(), 1U) << "nobody else's";
}

TEST_F(PairedPhonesTest, KeepAPhoneWhoseAddressesTheyCannotForget) {
    static_cast<void>(phones.record(phone));
    addresses().reached(phone.peer_pubkey, meeting());
    world.files.addFault(
        {.operation = fakes::Operation::lock, .errorNumber = EIO, .nameEnding = "addresses.json.lock"});
    EXPECT_THROW(static_cast<void>(phones.remove(phone, ownKey)), HostError);
    EXPECT_THAT(names(), ElementsAre(phone.peer_hostname)) << "so that the person can remove it again";
    world.files.clearFaults();
    EXPECT_EQ(phones.remove(phone, ownKey), phone);
    EXPECT_THAT(addresses().addressesOf(phone.peer_pubkey), IsEmpty());
}

TEST_F(PairedPhonesTest, ReplaceAnEarlierIdentityOfThePhoneThatHasMoved) {
    static_cast<void>(phones.record(phone));
    addresses().reached(phone.peer_pubkey, meeting(pixelMac, atHome));
    const PeerRecord anew = pairedAnew();
    const PeerStore::Recorded recorded = phones.record(anew, meeting(pixelMac, atHome));
    EXPECT_THAT(recorded.replaced, ElementsAre(phone));
    EXPECT_THAT(recorded.namesakes, IsEmpty());
    EXPECT_EQ(recorded.record, anew) << "and it keeps its name";
    EXPECT_THAT(home.peers().loadBook().peers, ElementsAre(anew));
    EXPECT_THAT(addresses().addressesOf(phone.peer_pubkey), IsEmpty()) << "nobody has that key any more";
}

TEST_F(PairedPhonesTest, KeepBothWhereItIsNotCertainThatTheyAreOnePhone) {
    const MacAddress otherMac = *MacAddress::parse("3e:5a:b4:01:02:04");
    const NetworkId atWork = *NetworkId::parse("0123456789abcdef");
    static_cast<void>(phones.record(phone));
    addresses().reached(phone.peer_pubkey, meeting(pixelMac, atHome));
    for (const std::optional<Meeting>& met :
         {std::optional<Meeting>(), std::optional(meeting(otherMac, atHome)), std::optional(meeting(pixelMac, atWork)),
          std::optional(meeting(std::nullopt, atHome)), std::optional(meeting(pixelMac, std::nullopt))}) {
        const PeerStore::Recorded recorded = phones.record(pairedAnew(), met);
        EXPECT_THAT(recorded.replaced, IsEmpty());
        EXPECT_THAT(recorded.namesakes, ElementsAre(phone));
        EXPECT_EQ(recorded.record.peer_hostname, "Pixel-8 (2)");
        home.peers().writeBook({{phone}});
    }
    PeerRecord renamed = pairedAnew();
    renamed.peer_hostname = "Tablet";
    EXPECT_THAT(phones.record(renamed, meeting(pixelMac, atHome)).replaced, IsEmpty());
    EXPECT_EQ(addresses().addressesOf(phone.peer_pubkey).size(), 1U);
}

TEST_F(PairedPhonesTest, DoNotTakeTheRoutersHardwareAddressForThePhones) {
    const auto ip = [](const char* literal) { return platform::parseIpAddress(literal).value(); };
    const auto entry = [&ip](const char* literal, const MacAddress& mac) {
        Bytes hardware;
        for (const std::uint8_t byte : mac.raw()) {
            hardware.push_back(std::byte{byte});
        }
        return fakes::MemoryNeighbours::entry(ip(literal), platform::NeighbourState::reachable, hardware, "enp3s0");
    };
    const MacAddress routerMac = *MacAddress::parse("10:10:10:10:10:10");
    world.routes.gateways["enp3s0"] = ip("192.168.1.1");
    world.routes.putOnLink(ip("192.168.1.7"), "enp3s0");
    world.neighbours.put(entry("192.168.1.1", routerMac));
    world.neighbours.put(entry("192.168.1.7", pixelMac));
    ASSERT_TRUE(phones.meet("192.168.1.7"));
    EXPECT_EQ(phones.meet("192.168.1.7")->mac, pixelMac);
    EXPECT_TRUE(phones.meet("192.168.1.7")->network);
    world.neighbours.put(entry("192.168.1.7", routerMac)); // it answers for phones that it keeps apart
    EXPECT_EQ(phones.meet("192.168.1.7")->mac, std::nullopt);
    EXPECT_FALSE(phones.meet("127.0.0.1"));
}

TEST_F(PairedPhonesTest, RecordNothingIfAnEarlierIdentitysAddressesCannotBeForgotten) {
    static_cast<void>(phones.record(phone));
    addresses().reached(phone.peer_pubkey, meeting(pixelMac, atHome));
    world.files.addFault(
        {.operation = fakes::Operation::lock, .errorNumber = EIO, .nameEnding = "addresses.json.lock"});
    EXPECT_THROW(static_cast<void>(phones.record(pairedAnew(), meeting(pixelMac, atHome))), HostError);
    EXPECT_THAT(home.peers().loadBook().peers, ElementsAre(phone));
}

TEST_F(PairedPhonesTest, ArePairedBeforeOrAfterAndLeaveNoAddressOfAnIdentityThatIsReplacedHoweverTheyAreCutOff) {
    const PeerRecord anew = pairedAnew();
    fakes::forEveryCrash(
        [&](fakes::MemoryFileSystem& disk) {
            on(disk, [&](Home& own) {
                static_cast<void>(PairedPhones(own).record(phone));
                memoryOf(own).reached(phone.peer_pubkey, meeting(pixelMac, atHome));
            });
        },
        [&](fakes::MemoryFileSystem& disk) {
            on(disk, [&](Home& own) { static_cast<void>(PairedPhones(own).record(anew, meeting(pixelMac, atHome))); });
        },
        [&](const fakes::Aftermath& after) {
            on(after.files, [&](Home& own) {
                const std::vector<PeerRecord> peers = own.peers().loadBook().peers;
                const bool isNew = peers == std::vector{anew};
                EXPECT_TRUE(isNew || peers == std::vector{phone});
                EXPECT_TRUE(isNew || !after.completed);
                EXPECT_TRUE(!isNew || memoryOf(own).addressesOf(phone.peer_pubkey).empty());
            });
        });
}

TEST_F(PairedPhonesTest, LeaveNoAddressOfAPhoneThatIsNotPairedAnyMoreHoweverTheyAreCutOff) {
    fakes::forEveryCrash(
        [&](fakes::MemoryFileSystem& disk) {
            on(disk, [&](Home& own) {
                static_cast<void>(PairedPhones(own).record(phone));
                memoryOf(own).reached(phone.peer_pubkey, meeting());
            });
        },
        [&](fakes::MemoryFileSystem& disk) {
            on(disk, [&](Home& own) { static_cast<void>(PairedPhones(own).remove(phone, ownKey)); });
        },
        [&](const fakes::Aftermath& after) {
            on(after.files, [&](Home& own) {
                const bool isPaired = own.peers().loadBook().find(phone.peer_pubkey) != nullptr;
                const bool isRemembered = !memoryOf(own).addressesOf(phone.peer_pubkey).empty();
                EXPECT_TRUE(isPaired || !isRemembered);
                EXPECT_TRUE(!isPaired || !after.completed);
            });
        });
}

TEST_F(PairedPhonesTest, AreNeverUnknownInBetween) {
    static_cast<void>(phones.record(phone));
    bool wasUnknown = false;
    world.files.beforeEach([&](fakes::Operation operation, const platform::Path&) {
        if (fakes::isMutating(operation)) {
            world.files.beforeEach({}); // the looks below are no operations of the removal
            wasUnknown = wasUnknown || !isKnown();
        }
    });
    static_cast<void>(phones.remove(phone, ownKey));
    EXPECT_FALSE(wasUnknown);
}

} // namespace
} // namespace orlinth::host
