#include "OrlinthHost/Phones/PairedPhones.h"

#include "OrlinthHost/HostError.h"
#include "OrlinthHost/Phones/AddressMemory.h"
#include "OrlinthHost/Phones/RemovedPeers.h"
#include "fakes/CrashTrials.h"
#include "fakes/World.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>

namespace orlinth::host {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const platform::Path peerFile = "/home/ann/.local/share/Orlinth/peer.json";

class PairedPhonesTest : public testing::Test {
protected:
    [[nodiscard]] AddressMemory addresses() { return {world.files, world.clock, world.log, home.dataDirectory()}; }
    [[nodiscard]] static Meeting meeting() { return {.host = HostAddress::parse("192.168.7.57", "wlan0").value()}; }
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

TEST_F(PairedPhonesTest, LeaveNoAddressOfAPhoneThatIsNotPairedAnyMoreHoweverTheyAreCutOff) {
    const auto phonesOn = [this](fakes::MemoryFileSystem& disk, const std::function<void(Home&)>& use) {
        platform::System system = world.systemOn(disk);
        Home own{system, world.context.get_executor()};
        use(own);
    };
    const auto memoryOf = [this](Home& own) {
        return AddressMemory(own.system.files, world.clock, world.log, own.dataDirectory());
    };
    fakes::forEveryCrash(
        [&](fakes::MemoryFileSystem& disk) {
            phonesOn(disk, [&](Home& own) {
                static_cast<void>(PairedPhones(own).record(phone));
                memoryOf(own).reached(phone.peer_pubkey, meeting());
            });
        },
        [&](fakes::MemoryFileSystem& disk) {
            phonesOn(disk, [&](Home& own) { static_cast<void>(PairedPhones(own).remove(phone, ownKey)); });
        },
        [&](const fakes::Aftermath& after) {
            phonesOn(after.files, [&](Home& own) {
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
