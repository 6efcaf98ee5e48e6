#include "OrlinthHost/Outbox/OutboxStore.h"

#include "OrlinthHost/HostError.h"
#include "fakes/World.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orlinth::host {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const platform::Path container = "/home/ann/.local/share/group.com.tarvinex.orlinth";
constexpr const char* first = "0A1B2C3D-4E5F-4071-8293-A4B5C6D7E8F9";
constexpr const char* second = "0B1B2C3D-4E5F-4071-8293-A4B5C6D7E8F9";
constexpr const char* third = "1A1B2C3D-4E5F-4071-8293-A4B5C6D7E8F9";

class OutboxStoreTest : public testing::Test {
protected:
    OutboxStoreTest() { pair({world.phoneRecord()}); }

    void pair(const std::vector<PeerRecord>& records) { home.peers().writeBook({records}); }
    void put(const std::string& id, std::int64_t createdAtMs, bool isSetAside = false,
             std::optional<std::vector<PeerKey>> phones = std::nullopt) {
        const platform::Path folder = container / (isSetAside ? "OutboxSetAside" : "Outbox") / id;
        world.files.put(folder / "a.txt", "12345");
        const ShareOutbox::Manifest manifest{.id = id,
                                             .createdAtMs = fromEpochMilliseconds(createdAtMs),
                                             .files = {"a.txt"},
                                             .targetPubkeys = std::move(phones)};
        world.files.put(folder / "manifest.json", compactJson(manifest.toJson()));
    }
    /// As after an attempt in which the phone did not take the file.
    void putFailure(const std::string& id, const PeerKey& peerKey) { putFailures(id, {peerKey}); }
    void putFailures(const std::string& id, const std::vector<PeerKey>& peerKeys) {
        OutboxState state(world.files, store.memoryOf(BatchId(id)));
        for (const PeerKey& peerKey : peerKeys) {
            state.phones.push_back(freshPhone(peerKey, nullptr));
            state.phones.back().failed["a.txt"] = "declined";
        }
        state.save();
    }
    [[nodiscard]] std::vector<std::string> ids(const std::vector<std::string>& selectors) const {
        std::vector<std::string> ids;
        for (const OutboxStore::Entry& entry : store.matching(selectors)) {
            ids.push_back(entry.id.text());
        }
        return ids;
    }
    [[nodiscard]] OutboxStore::Entry entryOf(const std::string& id) const { return store.matching({id}).front(); }

    fakes::World world;
    Home home{world.system, world.context.get_executor()};
    OutboxStore store{home};
    const PeerKey phone = world.phoneRecord().peer_pubkey;
};

TEST_F(OutboxStoreTest, ListsWhatIsCompleteOrSetAsideTheOldestFirst) {
    EXPECT_THAT(store.all(), IsEmpty());
    put(first, 300);
    put(second, 100, true);
    put(third, 200);
    world.files.put(container / "Outbox" / "2A1B2C3D-4E5F-4071-8293-A4B5C6D7E8F9" / "a.txt", "on its way");
    const std::vector<OutboxStore::Entry> all = store.all();
    ASSERT_EQ(all.size(), 3U);
    EXPECT_EQ(all[0].id.text(), second);
    EXPECT_TRUE(all[0].isSetAside);
    EXPECT_EQ(all[1].id.text(), third);
    EXPECT_FALSE(all[1].isSetAside);
    EXPECT_EQ(all[2].id.text(), first);
    EXPECT_EQ(all[2].state.phones.at(0).peerKey, phone) << "to whom it will go";
    EXPECT_EQ(all[2].sizeOf(world.files, "a.txt"), 5);
    EXPECT_EQ(all[2].sizeOf(world.files, "b.txt"), 0);
    EXPECT_EQ(all[2].problem, "");
}

TEST_F(OutboxStoreTest, SaysWhyABatchCannotBeRead) {
    put(first, 1);
    world.files.put(container / "Outbox" / first / "manifest.json", "{");
    const std::vector<OutboxStore::Entry> all = store.all();
    ASSERT_EQ(all.size(), 1U);
    EXPECT_NE(all[0].problem, "");
    EXPECT_EQ(all[0].id.text(), first);
}

TEST_F(OutboxStoreTest, FindsBatchesByHowTheirIdsBegin) {
    put(first, 1);
    put(second, 2);
    put(third, 3, true);
    EXPECT_THAT(ids({"1a", "0a", "0A1B"}), ElementsAre(third, first));
    EXPECT_THROW(static_cast<void>(ids({"0"})), HostError) << "several";
    EXPECT_THROW(static_cast<void>(ids({"0a", "7"})), HostError) << "none";
}

TEST_F(OutboxStoreTest, TriesAgainWhatHasFailed) {
    put(first, 1);
    putFailure(first, phone);
    EXPECT_THAT(entryOf(first).state.phones.at(0).failed, testing::SizeIs(1));
    store.retry(entryOf(first));
    EXPECT_THAT(entryOf(first).state.phones.at(0).failed, IsEmpty());
}

TEST_F(OutboxStoreTest, BringsBackWhatWasSetAside) {
    put(first, 1, true, std::vector{phone});
    putFailure(first, phone);
    store.retry(entryOf(first));
    EXPECT_FALSE(entryOf(first).isSetAside);
    EXPECT_THAT(entryOf(first).state.phones.at(0).failed, IsEmpty());
}

TEST_F(OutboxStoreTest, BringsABatchForNobodyInParticularBackForThePhoneThatIsThereNow) {
    put(first, 1, true);
    put(second, 1, true, std::vector{PeerKey("a phone that was chosen")});
    putFailure(first, PeerKey("a phone that is gone"));
    putFailure(second, PeerKey("a phone that was chosen"));
    store.retry(entryOf(first));
    store.retry(entryOf(second));
    EXPECT_EQ(entryOf(first).state.phones.at(0).peerKey, phone);
    EXPECT_EQ(entryOf(second).state.phones.at(0).peerKey, PeerKey("a phone that was chosen"));
}

TEST_F(OutboxStoreTest, BringsNothingBackIfTheSettingsNameAPhoneThatIsNotThere) {
    PeerRecord pixel = world.phoneRecord();
    pixel.paired_at_epoch_ms = fromEpochMilliseconds(1000); // after the batch was made
    PeerRecord galaxy = pixel;
    galaxy.peer_hostname = "Galaxy";
    galaxy.peer_pubkey = platform::PrivateKey::generate().publicKey().peerKey();
    galaxy.paired_at_epoch_ms = fromEpochMilliseconds(2000);
    pair({pixel, galaxy});
    put(first, 1, true);
    putFailure(first, PeerKey("a phone that is gone"));
    home.defaultPhone = "Tablet";
    const std::vector<std::string> before = world.files.allFiles();
    try {
        store.retry(entryOf(first));
        ADD_FAILURE() << "it goes to another phone";
    } catch (const HostError& error) {
        EXPECT_EQ(error.description(), "no paired phone matches 'Tablet'");
        EXPECT_THAT(error.hint(), HasSubstr("`to` in [send]"));
    }
    EXPECT_TRUE(entryOf(first).isSetAside);
    EXPECT_EQ(entryOf(first).state.phones.at(0).peerKey, PeerKey("a phone that is gone"));
    EXPECT_EQ(world.files.allFiles(), before);
    home.defaultPhone = "pix";
    store.retry(entryOf(first));
    EXPECT_EQ(entryOf(first).state.phones.at(0).peerKey, phone);
}

TEST_F(OutboxStoreTest, DropsABatchWithWhatIsRememberedOfIt) {
    put(first, 1);
    put(second, 2, true);
    putFailure(first, phone);
    store.drop(entryOf(first));
    store.drop(entryOf(second));
    EXPECT_THAT(store.all(), IsEmpty());
    EXPECT_FALSE(world.files.exists(store.memoryOf(BatchId(first))));
    EXPECT_FALSE(world.files.exists(container / "Outbox" / first));
    EXPECT_FALSE(world.files.exists(container / "OutboxSetAside" / second));
}

TEST_F(OutboxStoreTest, DropsForOnePhoneWhatIsKeptForAnother) {
    const PeerKey other("another phone");
    put(first, 1, true, std::vector{phone, other});
    putFailures(first, {phone, other});
    store.drop(entryOf(first), phone);
    EXPECT_EQ(world.files.content(container / "OutboxSetAside" / first / "a.txt"), "12345");
    EXPECT_FALSE(entryOf(first).state.phones.at(0).hasFailures());
    EXPECT_TRUE(entryOf(first).state.phones.at(1).hasFailures());
    store.drop(entryOf(first), PeerKey("none of them"));
    EXPECT_THAT(ids({first}), ElementsAre(first));
    store.drop(entryOf(first), other);
    EXPECT_THAT(store.all(), IsEmpty());
    EXPECT_FALSE(world.files.exists(store.memoryOf(BatchId(first))));
}

TEST_F(OutboxStoreTest, BringsABatchBackForOneOfItsPhonesAlone) {
    const PeerKey other("another phone");
    put(first, 1, true, std::vector{phone, other});
    putFailures(first, {phone, other});
    EXPECT_FALSE(store.bringBack(BatchId(first), PeerKey("none of them")));
    EXPECT_TRUE(entryOf(first).isSetAside);
    EXPECT_TRUE(store.bringBack(BatchId(first), phone));
    EXPECT_FALSE(entryOf(first).isSetAside);
    EXPECT_THAT(entryOf(first).state.phones.at(0).failed, IsEmpty());
    EXPECT_TRUE(entryOf(first).state.phones.at(1).hasFailures());
    EXPECT_FALSE(store.bringBack(BatchId(first), other)) << "it is not set aside any more";
    EXPECT_TRUE(entryOf(first).state.phones.at(1).hasFailures());
}

TEST_F(OutboxStoreTest, DropsNothingThatCannotBeRemoved) {
    put(first, 1);
    world.files.addFault({.operation = fakes::Operation::remove, .errorNumber = EACCES, .nameEnding = "a.txt"});
    EXPECT_THROW(store.drop(entryOf(first)), platform::SystemError);
    EXPECT_THAT(ids({first}), ElementsAre(first));
}

} // namespace
} // namespace orlinth::host
