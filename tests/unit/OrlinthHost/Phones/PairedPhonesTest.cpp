#include "OrlinthHost/Phones/PairedPhones.h"

#include "OrlinthHost/Phones/RemovedPeers.h"
#include "fakes/CrashTrials.h"
#include "fakes/World.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orlinth::host {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const platform::Path peerFile = "/home/ann/.local/share/Orlinth/peer.json";

class PairedPhonesTest : public testing::Test {
protected:
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
