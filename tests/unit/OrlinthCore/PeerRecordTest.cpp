#include "OrlinthCore/Peers/PeerRecord.h"

#include "fakes/CrashTrials.h"
#include "fakes/MemoryFileSystem.h"
#include "fakes/VirtualClock.h"
#include "platform/SystemError.h"
#include "platform/linux/LinuxFileSystem.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace orlinth {
namespace {

using fakes::Aftermath;
using fakes::MemoryFileSystem;
using fakes::Operation;
using testing::ElementsAre;

const platform::Path folder = "/home/ada/.local/share/Orlinth";
const platform::Path file = folder / "peer.json";

PeerRecord phone(const std::string& key, const std::string& name = "Pixel-8", const std::string& ip = "192.168.1.20",
                 std::int64_t pairedAt = 1731686400000) {
    PeerRecord record;
    record.peer_pubkey = PeerKey(key);
    record.peer_ip = ip;
    record.peer_port = 50505;
    record.peer_subnet = "192.168.1.0/24";
    record.peer_hostname = name;
    record.peer_mac = "02:00:00:00:00:01";
    record.paired_at_epoch_ms = fromEpochMilliseconds(pairedAt);
    record.self_pubkey = PeerKey("self/+key=");
    record.peer_fcm_token = "token";
    record.peer_android = "android " + key;
    return record;
}

std::vector<std::string> keysOf(const std::vector<PeerRecord>& peers) {
    std::vector<std::string> keys;
    for (const PeerRecord& peer : peers) {
        keys.push_back(peer.peer_pubkey.text());
    }
    return keys;
}

std::string textOf(const std::function<void()>& action, PeerStoreError::Case expected) {
    try {
        action();
    } catch (const PeerStoreError& error) {
        EXPECT_EQ(error.which(), expected) << error.description();
        return error.description();
    }
    return "no error";
}

class PeerStoreTest : public testing::Test {
protected:
    void fill(const std::vector<PeerRecord>& peers) { files.put(file, prettyJson(PeerBook{peers}.toJson()), 0600); }

    MemoryFileSystem files;
    PeerStore store{files, folder};
};

TEST(PeerRecord, WritesAllTenKeys) {
    EXPECT_EQ(prettyJson(PeerRecord{}.toJson()), "{\n"
                                                 "  \"paired_at_epoch_ms\" : 0,\n"
                                                 "  \"peer_android\" : \"\",\n"
                                                 "  \"peer_fcm_token\" : \"\",\n"
                                                 "  \"peer_hostname\" : \"\",\n"
                                                 "  \"peer_ip\" : \"\",\n"
                                                 "  \"peer_mac\" : \"\",\n"
                                                 "  \"peer_port\" : 0,\n"
                                                 "  \"peer_pubkey\" : \"\",\n"
                                                 "  \"peer_subnet\" : \"\",\n"
                                                 "  \"self_pubkey\" : \"\"\n"
                                                 "}");
}

TEST(PeerRecord, DecodesWhatItEncoded) {
    const PeerRecord record = phone("k");
    EXPECT_EQ(PeerRecord::fromJson(record.toJson()), record);
}

TEST(PeerRecord, TakesTheThreeLaterKeysAsEmptyWhereTheyAreAbsent) {
    Json json = phone("k").toJson();
    for (const char* key : {"self_pubkey", "peer_fcm_token", "peer_android"}) {
        json.erase(key);
    }
    const PeerRecord record = PeerRecord::fromJson(json);
    EXPECT_TRUE(record.self_pubkey.isEmpty());
    EXPECT_EQ(record.peer_fcm_token, "");
    EXPECT_EQ(record.peer_android, "");
    EXPECT_EQ(record.peer_mac, "02:00:00:00:00:01");
}

TEST(PeerRecord, RequiresEachOfTheOtherKeys) {
    for (const char* key :
         {"peer_pubkey", "peer_ip", "peer_port", "peer_subnet", "peer_hostname", "peer_mac", "paired_at_epoch_ms"}) {
        Json json = phone("k").toJson();
        json.erase(key);
        EXPECT_THROW(static_cast<void>(PeerRecord::fromJson(json)), JsonError) << key;
        json[key] = Json::array();
        EXPECT_THROW(static_cast<void>(PeerRecord::fromJson(json)), JsonError) << key;
    }
}

TEST(PeerRecord, CopiesWithOneFieldChanged) {
    PeerRecord expected = phone("k");
    expected.peer_fcm_token = "new";
    EXPECT_EQ(phone("k").withFcmToken("new"), expected);
    expected = phone("k");
    expected.peer_hostname = "Phone of Ada";
    EXPECT_EQ(phone("k").withHostname("Phone of Ada"), expected);
}

TEST(PeerBook, FindsTheFirstRecordOfAKey) {
    const PeerBook book{{phone("ONE"), phone("ONE", "later")}};
    EXPECT_EQ(&book.peers.front(), book.find(PeerKey("ONE")));
    EXPECT_EQ(nullptr, book.find(PeerKey("TWO")));
    EXPECT_EQ(nullptr, PeerBook{}.find(PeerKey()));
}

TEST(PeerStorePlace, IsTheUsersFolderOrTheOneGiven) {
    MemoryFileSystem files;
    const platform::UserDirectories directories{.data = "/data", .config = "/config", .downloads = "/downloads"};
    EXPECT_EQ(PeerStore(files, directories).directoryURL(), "/data/Orlinth");
    EXPECT_EQ(PeerStore(files, directories).fileURL(), "/data/Orlinth/peer.json");
    EXPECT_EQ(PeerStore(files, directories, "other.json").fileURL(), "/data/Orlinth/other.json");
    EXPECT_EQ(PeerStore(files, platform::Path("/x"), "y").fileURL(), "/x/y");
}

class KeptPeerBookTest : public testing::Test {
protected:
    KeptPeerBookTest() {
        write("first");
        pass(100s); // so old that it shows every change
    }
    void write(const std::string& name) {
        files.put(store.fileURL(), prettyJson(PeerBook{{phone("k", name)}}.toJson()), 0600);
    }
    void pass(Seconds time) { fakes::runVirtual(context, clock, clock.sleep(time)); }
    [[nodiscard]] static std::string nameIn(const PeerStore& of) { return of.loadBook().peers.at(0).peer_hostname; }
    /// How often the file was opened since the last call.
    [[nodiscard]] std::size_t timesRead() {
        const std::size_t before = std::exchange(opened, files.count(Operation::open));
        return opened - before;
    }

    asio::io_context context;
    fakes::VirtualClock clock{context};
    MemoryFileSystem files;
    platform::UserDirectories directories{.data = "/data", .config = "/config", .downloads = "/downloads"};
    PeerStore store = PeerStore::keepingBook(files, directories, clock);
    const PeerStore copy = store;
    std::size_t opened = 0;
};

TEST_F(KeptPeerBookTest, IsReadOnceForAllCopiesOfTheStore) {
    EXPECT_EQ(nameIn(store), "first");
    EXPECT_EQ(nameIn(store), "first"); // this look may have been too early to show every change
    static_cast<void>(timesRead());
    EXPECT_EQ(nameIn(store), "first");
    EXPECT_EQ(nameIn(copy), "first");
    EXPECT_EQ(timesRead(), 0U);
}

TEST_F(KeptPeerBookTest, IsReadAnewWhenSomebodyHasChangedTheFile) {
    static_cast<void>(store.loadBook());
    write("second");
    EXPECT_EQ(nameIn(copy), "second");
    EXPECT_EQ(nameIn(store), "second");
    files.remove(store.fileURL());
    EXPECT_EQ(store.loadBook(), PeerBook());
    store.upsert(phone("k", "third"));
    EXPECT_EQ(nameIn(copy), "third");
}

TEST_F(KeptPeerBookTest, FailsEachTimeWhileTheFileCannotBeRead) {
    files.put(store.fileURL(), "{", 0600);
    pass(100s);
    EXPECT_THROW(static_cast<void>(store.loadBook()), PeerStoreError);
    EXPECT_THROW(static_cast<void>(store.loadBook()), PeerStoreError);
    EXPECT_THROW(static_cast<void>(copy.loadBook()), PeerStoreError);
    write("whole");
    EXPECT_EQ(nameIn(store), "whole");
}

TEST_F(PeerStoreTest, IsEmptyWithoutAFile) {
    EXPECT_EQ(store.loadBook(), PeerBook{});
    EXPECT_EQ(store.load(), std::nullopt);
    EXPECT_EQ(store.mostRecent(), std::nullopt);
    EXPECT_EQ(store.resolve("pixel"), std::nullopt);
    EXPECT_EQ(files.mutations(), 0U);
}

TEST_F(PeerStoreTest, ChangesNothingWhereThereIsNothingToChange) {
    EXPECT_EQ(store.removeFirst([](const PeerRecord&) { return true; }), std::nullopt);
    store.update([](PeerBook&) { return false; });
    store.wipe();
    EXPECT_EQ(files.mutations(), 0U);
}

TEST_F(PeerStoreTest, WritesTheBookInThePrettyFormForTheOwnerAlone) {
    PeerBook book;
    book.peers.push_back(phone("a/+b="));
    store.writeBook(book);
    EXPECT_EQ(files.content(file), "{\n"
                                   "  \"peers\" : [\n"
                                   "    {\n"
                                   "      \"paired_at_epoch_ms\" : 1731686400000,\n"
                                   "      \"peer_android\" : \"android a/+b=\",\n"
                                   "      \"peer_fcm_token\" : \"token\",\n"
                                   "      \"peer_hostname\" : \"Pixel-8\",\n"
                                   "      \"peer_ip\" : \"192.168.1.20\",\n"
                                   "      \"peer_mac\" : \"02:00:00:00:00:01\",\n"
                                   "      \"peer_port\" : 50505,\n"
                                   "      \"peer_pubkey\" : \"a/+b=\",\n"
                                   "      \"peer_subnet\" : \"192.168.1.0/24\",\n"
                                   "      \"self_pubkey\" : \"self/+key=\"\n"
                                   "    }\n"
                                   "  ]\n"
                                   "}");
    EXPECT_EQ(files.status(file)->permissions, 0600U);
    EXPECT_EQ(store.loadBook(), book);
}

TEST_F(PeerStoreTest, WritesAnEmptyBook) {
    store.writeBook({});
    EXPECT_EQ(files.content(file), "{\n  \"peers\" : []\n}");
    EXPECT_EQ(store.loadBook(), PeerBook{});
}

TEST_F(PeerStoreTest, ReadsTheOlderFormOfOneBareRecord) {
    files.put(file, compactJson(phone("old").toJson()));
    EXPECT_EQ(store.loadBook(), PeerBook{{phone("old")}});
    store.upsert(phone("new", "Other"));
    EXPECT_TRUE(parseJson(*files.content(file)).contains("peers"));
    EXPECT_THAT(keysOf(store.loadBook().peers), ElementsAre("old", "new"));
}

TEST_F(PeerStoreTest, ReportsTheErrorOfTheFormThatTheFileResembles) {
    const auto load = [this] { static_cast<void>(store.loadBook()); };
    Json record = phone("k").toJson();
    record.erase("peer_mac");
    files.put(file, compactJson(record));
    EXPECT_EQ(textOf(load, PeerStoreError::Case::decode), "PeerRecord decode failed: key \"peer_mac\" is missing");

    record.erase("peer_pubkey");
    files.put(file, compactJson({{"peers", {record}}}));
    EXPECT_EQ(textOf(load, PeerStoreError::Case::decode), "PeerRecord decode failed: key \"peer_pubkey\" is missing");

    files.put(file, R"({"peers":7})");
    EXPECT_EQ(textOf(load, PeerStoreError::Case::decode),
              "PeerRecord decode failed: key \"peers\": expected an array, found number");
    files.put(file, "{}");
    EXPECT_EQ(textOf(load, PeerStoreError::Case::decode), "PeerRecord decode failed: key \"peer_pubkey\" is missing");
    files.put(file, "[]");
    EXPECT_EQ(textOf(load, PeerStoreError::Case::decode), "PeerRecord decode failed: expected an object, found array");
    files.put(file, "");
    EXPECT_EQ(textOf(load, PeerStoreError::Case::decode), "PeerRecord decode failed: not valid JSON at byte 1");
}

TEST_F(PeerStoreTest, TakesARecordThatHasAForeignMemberNamedPeers) {
    Json record = phone("k").toJson();
    record["peers"] = "many";
    files.put(file, compactJson(record));
    EXPECT_EQ(store.loadBook(), PeerBook{{phone("k")}});
}

TEST_F(PeerStoreTest, IgnoresForeignMembers) {
    Json json = PeerBook{{phone("k")}}.toJson();
    json["version"] = 3;
    json["peers"][0]["colour"] = "blue";
    files.put(file, compactJson(json));
    EXPECT_EQ(store.loadBook(), PeerBook{{phone("k")}});
}

TEST_F(PeerStoreTest, ReportsAFileThatCannotBeRead) {
    fill({phone("k")});
    files.setPermissions(file, 0);
    EXPECT_EQ(textOf([this] { static_cast<void>(store.loadBook()); }, PeerStoreError::Case::read),
              "PeerRecord read failed: Permission denied");
    files.setPermissions(file, 0600);
    files.addFault({.operation = Operation::read, .errorNumber = EIO});
    EXPECT_EQ(textOf([this] { static_cast<void>(store.resolve("x")); }, PeerStoreError::Case::read),
              "PeerRecord read failed: Input/output error");
}

TEST_F(PeerStoreTest, ReportsAFolderInTheFilesPlace) {
    files.putFolder(file);
    EXPECT_EQ(textOf([this] { static_cast<void>(store.loadBook()); }, PeerStoreError::Case::read),
              "PeerRecord read failed: Is a directory");
}

TEST_F(PeerStoreTest, ReportsAFolderThatCannotBeMade) {
    files.put(folder.parent_path(), "a file in the way");
    EXPECT_EQ(textOf([this] { store.upsert(phone("k")); }, PeerStoreError::Case::directoryCreate),
              "could not create storage directory: Not a directory");
    EXPECT_EQ(textOf([this] { store.writeBook({}); }, PeerStoreError::Case::directoryCreate),
              "could not create storage directory: Not a directory");
}

TEST_F(PeerStoreTest, ReportsAFolderThatCannotBeWrittenTo) {
    files.putFolder(folder, 0500);
    EXPECT_EQ(textOf([this] { store.upsert(phone("k")); }, PeerStoreError::Case::write),
              "PeerRecord write failed: Permission denied");
    EXPECT_EQ(textOf([this] { store.writeBook({}); }, PeerStoreError::Case::write),
              "PeerRecord write failed: Permission denied");
}

TEST_F(PeerStoreTest, NeedsNoRightToWriteWhereThereIsNothingToRemove) {
    fill({phone("k")});
    files.setPermissions(folder, 0500);
    EXPECT_EQ(store.removeFirst([](const PeerRecord&) { return false; }), std::nullopt);
    EXPECT_EQ(
        textOf([this] { store.removeFirst([](const PeerRecord&) { return true; }); }, PeerStoreError::Case::write),
        "PeerRecord write failed: Permission denied");
}

TEST_F(PeerStoreTest, DoesNotOverwriteAFileThatDoesNotDecode) {
    files.put(file, "not a book");
    EXPECT_EQ(textOf([this] { store.upsert(phone("k")); }, PeerStoreError::Case::decode),
              "PeerRecord decode failed: not valid JSON at byte 2");
    EXPECT_THROW(store.upsertReplacingStale(phone("k")), PeerStoreError);
    EXPECT_THROW(store.removeFirst([](const PeerRecord&) { return true; }), PeerStoreError);
    EXPECT_EQ(files.content(file), "not a book");
}

TEST_F(PeerStoreTest, MovesARecordWithAKnownKeyToTheEndOnUpsert) {
    fill({phone("a"), phone("b"), phone("c"), phone("b")});
    store.upsert(phone("b", "renamed"));
    EXPECT_THAT(keysOf(store.loadBook().peers), ElementsAre("a", "c", "b"));
    EXPECT_EQ(store.loadBook().peers.back(), phone("b", "renamed"));
    store.save(phone("a"));
    EXPECT_THAT(keysOf(store.loadBook().peers), ElementsAre("c", "b", "a"));
}

TEST_F(PeerStoreTest, ComparesKeysAsTextsOnUpsert) {
    fill({phone("AAA")});
    store.upsert(phone("aaa"));
    EXPECT_THAT(keysOf(store.loadBook().peers), ElementsAre("AAA", "aaa"));
}

TEST_F(PeerStoreTest, ReplacesTheOldIdentityOfAPhoneThatPairedAnew) {
    fill({phone("other", "Tablet"), phone("old"), phone("moved", "Pixel-8", "10.0.0.9"), phone("old2")});
    EXPECT_EQ(store.upsertReplacingStale(phone("new")), (std::vector{phone("old"), phone("old2")}));
    EXPECT_THAT(keysOf(store.loadBook().peers), ElementsAre("other", "moved", "new"));
}

TEST_F(PeerStoreTest, RecordsAPhoneUnderANameThatNoOtherHas) {
    fill({phone("first"), phone("x", "Tablet")});
    const PeerStore::Recorded recorded = store.upsertUnderFreeName(phone("second", "pixel-8 ", "192.168.1.30"));
    EXPECT_EQ(recorded.record, phone("second", "pixel-8 (2)", "192.168.1.30"));
    EXPECT_TRUE(recorded.replaced.empty());
    EXPECT_EQ(store.loadBook().find(PeerKey("first"))->peer_hostname, "Pixel-8")
        << "who was there first keeps the name";
    EXPECT_EQ(store.loadBook().peers.back(), recorded.record);
    // and the same phone again, which calls itself as before
    EXPECT_EQ(store.upsertUnderFreeName(phone("second", "Pixel-8", "192.168.1.30")).record.peer_hostname,
              "Pixel-8 (2)");
    EXPECT_EQ(store.loadBook().peers.size(), 3U);
}

TEST_F(PeerStoreTest, APhoneThatPairsAnewTakesItsOwnPlace) {
    fill({phone("old"), phone("numbered", "Pixel-8 (2)", "192.168.1.30"),
          phone("elsewhere", "Pixel-8 (2)", "10.0.0.1")});
    PeerStore::Recorded recorded = store.upsertUnderFreeName(phone("new"));
    EXPECT_EQ(recorded.record, phone("new")) << "name and address are those of the old record";
    EXPECT_EQ(recorded.replaced, std::vector{phone("old")});
    recorded = store.upsertUnderFreeName(phone("newer", "Pixel-8", "192.168.1.30"));
    EXPECT_EQ(recorded.replaced, (std::vector{phone("numbered", "Pixel-8 (2)", "192.168.1.30")}));
    EXPECT_EQ(recorded.record.peer_hostname, "Pixel-8 (3)") << "the second one's name is taken by a phone elsewhere";
    EXPECT_THAT(keysOf(store.loadBook().peers), ElementsAre("elsewhere", "new", "newer"));
}

TEST_F(PeerStoreTest, APhoneIsKnownByItsAndroidIdentifierWhateverItsNameAndAddress) {
    const auto identified = [](PeerRecord record, const char* android) {
        record.peer_android = android;
        return record;
    };
    const PeerRecord old = identified(phone("old", "Pixel-8", "192.168.1.20"), "0123456789abcdef");
    const PeerRecord other = identified(phone("other", "Pixel-8 (2)", "192.168.1.21"), "fedcba9876543210");
    fill({old, other, phone("nameless", "Tablet", "192.168.1.22")});
    const PeerRecord moved = identified(phone("new", "Ann's phone", "10.0.0.1"), "0123456789abcdef");
    EXPECT_TRUE(PeerStore::isEarlierIdentity(old, moved));
    EXPECT_FALSE(PeerStore::isEarlierIdentity(other, moved));
    EXPECT_FALSE(PeerStore::isEarlierIdentity(old, old)) << "it is the same identity";
    EXPECT_EQ(store.upsertUnderFreeName(moved).replaced, std::vector{old});
    EXPECT_TRUE(store.upsertUnderFreeName(phone("newer", "Radio", "10.0.0.2")).replaced.empty())
        << "two phones without an identifier are not the same";
    EXPECT_THAT(keysOf(store.loadBook().peers), ElementsAre("other", "nameless", "new", "newer"));
}

TEST_F(PeerStoreTest, APhoneIsWhatItsHostSaysAndItsNamesakesMayBe) {
    fill({phone("old", "Pixel-8", "192.168.1.20"), phone("other", "pixel-8 (2)", "192.168.1.21"),
          phone("third", "Pixel-8 (3)", "192.168.1.22"), phone("x", "Tablet")});
    const auto isOld = [](const PeerRecord& earlier) { return earlier.peer_pubkey == PeerKey("old"); };
    PeerStore::Recorded recorded = store.upsertUnderFreeName(phone("new", "Pixel-8", "10.0.0.1"), isOld);
    EXPECT_THAT(keysOf(recorded.replaced), ElementsAre("old"));
    EXPECT_THAT(keysOf(recorded.namesakes), ElementsAre("third"));
    EXPECT_EQ(recorded.record.peer_hostname, "Pixel-8");
    recorded = store.upsertUnderFreeName(phone("new", "Pixel-8", "10.0.0.2"));
    EXPECT_TRUE(recorded.namesakes.empty()) << "it was recorded before";
    recorded = store.upsertUnderFreeName(phone("newest", "pixel-8", "10.0.0.3"));
    EXPECT_THAT(keysOf(recorded.namesakes), ElementsAre("other", "new"));
}

TEST_F(PeerStoreTest, DoesNotReportARecordOfTheSameKeyAsStale) {
    fill({phone("k"), phone("x", "Tablet")});
    EXPECT_TRUE(store.upsertReplacingStale(phone("k")).empty());
    EXPECT_THAT(keysOf(store.loadBook().peers), ElementsAre("x", "k"));
}

TEST_F(PeerStoreTest, MakesTheFolderForTheFirstRecord) {
    EXPECT_TRUE(store.upsertReplacingStale(phone("k")).empty());
    EXPECT_EQ(store.load(), phone("k"));
}

TEST_F(PeerStoreTest, RemovesTheFirstMatchAlone) {
    fill({phone("a"), phone("b", "Tablet"), phone("c", "Tablet")});
    EXPECT_EQ(store.removeFirst([](const PeerRecord& peer) { return peer.peer_hostname == "Tablet"; }),
              phone("b", "Tablet"));
    EXPECT_THAT(keysOf(store.loadBook().peers), ElementsAre("a", "c"));
}

TEST_F(PeerStoreTest, PicksTheRecordPairedLast) {
    fill({phone("a", "n", "i", 5), phone("b", "n", "i", 9), phone("c", "n", "i", 9), phone("d", "n", "i", -1)});
    EXPECT_EQ(store.mostRecent()->peer_pubkey, PeerKey("b"));
    EXPECT_EQ(store.load()->peer_pubkey, PeerKey("b"));
}

TEST_F(PeerStoreTest, ResolvesASelectorByItsRules) {
    fill({phone("AbcKey", "Pixel-7"), phone("AbdKey", "Pixel-8"), phone("Zzz", "\u00c4pfel"), phone("pix", "Pix")});
    EXPECT_EQ(store.resolve("PIXEL-8")->peer_hostname, "Pixel-8");
    EXPECT_EQ(store.resolve("pix")->peer_hostname, "Pix"); // the exact name wins over three prefixes
    EXPECT_EQ(store.resolve("\u00e4PF")->peer_hostname, "\u00c4pfel");
    EXPECT_EQ(store.resolve("aBC")->peer_hostname, "Pixel-7");
    EXPECT_EQ(store.resolve("zzz")->peer_hostname, "\u00c4pfel");
    EXPECT_EQ(store.resolve("nobody"), std::nullopt);
    EXPECT_EQ(store.resolve("AbcKeyAndMore"), std::nullopt);
}

TEST_F(PeerStoreTest, TakesTheFirstOfSeveralRecordsWithTheExactName) {
    fill({phone("a", "Same"), phone("b", "same")});
    EXPECT_EQ(store.resolve("SAME")->peer_pubkey, PeerKey("a"));
}

TEST_F(PeerStoreTest, RefusesAnAmbiguousSelector) {
    fill({phone("AbcKey", "Pixel-7"), phone("abdKey", "Pixel-8")});
    EXPECT_EQ(textOf([this] { static_cast<void>(store.resolve("pixel")); }, PeerStoreError::Case::decode),
              "PeerRecord decode failed: selector 'pixel' is ambiguous (matches: Pixel-7, Pixel-8)");
    EXPECT_EQ(textOf([this] { static_cast<void>(store.resolve("AB")); }, PeerStoreError::Case::decode),
              "PeerRecord decode failed: selector 'AB' is ambiguous on pubkey prefix");
}

TEST_F(PeerStoreTest, WipesTheFileAndReportsWhereItCannot) {
    fill({phone("k")});
    store.wipe();
    EXPECT_FALSE(files.exists(file));
    EXPECT_EQ(store.loadBook(), PeerBook{});
    fill({phone("k")});
    files.addFault({.operation = Operation::remove, .errorNumber = EPERM});
    EXPECT_EQ(textOf([this] { store.wipe(); }, PeerStoreError::Case::write),
              "PeerRecord write failed: Operation not permitted");
}

TEST_F(PeerStoreTest, KeepsALinkInTheFilesPlace) {
    files.put("/elsewhere/book.json", "{\"peers\":[]}");
    files.putLink(file, "/elsewhere/book.json");
    store.upsert(phone("k"));
    EXPECT_EQ(files.resolveLinks(file), "/elsewhere/book.json");
    EXPECT_EQ(store.load(), phone("k"));
}

TEST_F(PeerStoreTest, HoldsTheLockFromReadingToWriting) {
    fill({phone("a")});
    const platform::Path lockFile = file.native() + ".lock";
    bool lockedWhileChanging = false;
    store.update([&](PeerBook& book) {
        lockedWhileChanging = files.isLocked(lockFile);
        book.peers.push_back(phone("b"));
        return true;
    });
    EXPECT_TRUE(lockedWhileChanging);
    EXPECT_FALSE(files.isLocked(lockFile));
}

// The states before and after a change; everything between them must not be seen by a later run.
void expectOldOrNew(const Aftermath& after, const PeerBook& before, const PeerBook& changed) {
    PeerStore next(after.files, folder);
    const PeerBook found = next.loadBook();
    if (after.completed) {
        EXPECT_EQ(found, changed);
    } else {
        EXPECT_TRUE(found == before || found == changed);
    }
    next.upsert(phone("later", "Later"));
    EXPECT_EQ(next.loadBook().peers.size(), found.peers.size() + 1);
    EXPECT_TRUE(next.removeFirst([](const PeerRecord& peer) { return peer.peer_pubkey == PeerKey("later"); }));
    EXPECT_EQ(next.loadBook(), found);
}

const PeerBook twoPhones{{phone("a"), phone("b", "Tablet")}};

void prepareTwoPhones(MemoryFileSystem& files) {
    files.put(file, prettyJson(twoPhones.toJson()), 0600);
}

TEST(PeerStoreCrash, LeavesTheOldOrTheNewBookOnUpsert) {
    fakes::forEveryCrash(
        prepareTwoPhones, [](MemoryFileSystem& files) { PeerStore(files, folder).upsert(phone("c")); },
        [](const Aftermath& after) {
            expectOldOrNew(after, twoPhones, PeerBook{{phone("a"), phone("b", "Tablet"), phone("c")}});
        });
}

TEST(PeerStoreCrash, LeavesNoOrTheFirstBook) {
    fakes::forEveryCrash([](MemoryFileSystem& files) { files.putFolder(folder); },
                         [](MemoryFileSystem& files) { PeerStore(files, folder).upsert(phone("c")); },
                         [](const Aftermath& after) { expectOldOrNew(after, {}, PeerBook{{phone("c")}}); });
}

TEST(PeerStoreCrash, LeavesTheOldOrTheNewBookOnReplacingAndRemoving) {
    fakes::forEveryCrash(
        prepareTwoPhones, [](MemoryFileSystem& files) { PeerStore(files, folder).upsertReplacingStale(phone("new")); },
        [](const Aftermath& after) {
            expectOldOrNew(after, twoPhones, PeerBook{{phone("b", "Tablet"), phone("new")}});
        });
    fakes::forEveryCrash(
        prepareTwoPhones,
        [](MemoryFileSystem& files) {
            PeerStore(files, folder).removeFirst([](const PeerRecord& peer) {
                return peer.peer_pubkey == PeerKey("a");
            });
        },
        [](const Aftermath& after) { expectOldOrNew(after, twoPhones, PeerBook{{phone("b", "Tablet")}}); });
    fakes::forEveryCrash(
        prepareTwoPhones, [](MemoryFileSystem& files) { PeerStore(files, folder).wipe(); },
        [](const Aftermath& after) { expectOldOrNew(after, twoPhones, {}); });
}

TEST(PeerStoreFailure, IsReportedInTheSystemsWordsAndLeavesAWholeBook) {
    const PeerBook changed{{phone("a"), phone("b", "Tablet"), phone("c")}};
    for (const int errorNumber : {ENOSPC, EIO, EACCES}) {
        fakes::forEveryFailure(
            errorNumber, prepareTwoPhones, [](MemoryFileSystem& files) { PeerStore(files, folder).upsert(phone("c")); },
            [&](MemoryFileSystem& files, const std::exception_ptr& thrown) {
                const std::string text = platform::SystemError::fromErrno(errorNumber).description();
                EXPECT_EQ(thrown ? describe(thrown) : "no error", "PeerRecord write failed: " + text);
                const PeerBook found = PeerStore(files, folder).loadBook();
                // Once renamed, the new book is there, although it may not survive a power cut.
                const bool renamed = !files.history().empty() && files.history().back().starts_with("rename");
                EXPECT_EQ(found, renamed ? changed : twoPhones);
                const std::vector<std::string> left = files.list(folder);
                EXPECT_TRUE(std::ranges::none_of(left, [](const std::string& name) { return name.ends_with(".tmp"); }));
            });
    }
}

TEST(PeerStoreFailure, OfTheFolderHasItsOwnCase) {
    MemoryFileSystem files;
    files.addFault({.operation = Operation::createDirectory, .errorNumber = EROFS});
    PeerStore store(files, folder);
    EXPECT_EQ(textOf([&] { store.upsert(phone("k")); }, PeerStoreError::Case::directoryCreate),
              "could not create storage directory: Read-only file system");
}

TEST(PeerStoreFailure, OfAFullDiskLeavesTheOldBook) {
    MemoryFileSystem files;
    prepareTwoPhones(files);
    files.setCapacity(files.content(file)->size() + 20);
    PeerStore store(files, folder);
    EXPECT_EQ(textOf([&] { store.upsert(phone("k")); }, PeerStoreError::Case::write),
              "PeerRecord write failed: No space left on device");
    EXPECT_EQ(store.loadBook(), twoPhones);
    EXPECT_THAT(files.list(folder), ElementsAre("peer.json", "peer.json.lock"));
}

TEST(PeerStoreTogether, LosesNoChangeOfConcurrentThreads) {
    constexpr int threadCount = 4;
    constexpr int changes = 25;
    MemoryFileSystem files;
    {
        std::vector<std::jthread> threads;
        for (int thread = 0; thread < threadCount; ++thread) {
            threads.emplace_back([&files, thread] {
                PeerStore store(files, folder);
                for (int i = 0; i < changes; ++i) {
                    store.upsert(phone(std::to_string(thread) + "-" + std::to_string(i)));
                }
            });
        }
    }
    EXPECT_EQ(PeerStore(files, folder).loadBook().peers.size(), std::size_t{threadCount * changes});
}

TEST(PeerStoreTogether, LosesNoChangeOfConcurrentProcesses) {
    constexpr int processCount = 4;
    constexpr int changes = 20;
    std::string pattern = (std::filesystem::temp_directory_path() / "orlinth-peers-XXXXXX").native();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    const platform::Path temporary = pattern;
    const platform::Path shared = temporary / "made" / "by-the-first";
    std::vector<pid_t> children;
    for (int process = 0; process < processCount; ++process) {
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            int status = 0;
            try {
                platform::LinuxFileSystem files;
                PeerStore store(files, shared);
                for (int i = 0; i < changes; ++i) {
                    store.upsert(phone(std::to_string(process) + "-" + std::to_string(i)));
                }
            } catch (const std::exception&) {
                status = 1;
            }
            ::_exit(status);
        }
        children.push_back(child);
    }
    for (const pid_t child : children) {
        int status = -1;
        EXPECT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
    platform::LinuxFileSystem files;
    EXPECT_EQ(PeerStore(files, shared).loadBook().peers.size(), std::size_t{processCount * changes});
    EXPECT_EQ(files.status(shared / "peer.json")->permissions, 0600U);
    EXPECT_EQ(files.list(shared).size(), 2U); // the book and its lock
    std::filesystem::remove_all(temporary);
}

TEST(PeerStoreFolder, IsForTheOwnerAlone) {
    fakes::MemoryFileSystem files;
    PeerStore store(files, "/data/Orlinth");
    store.writeBook({});
    EXPECT_EQ(files.status("/data/Orlinth")->permissions, 0700U);
    EXPECT_EQ(files.status(store.fileURL())->permissions, 0600U);
}

TEST(PeerStoreErrorPayload, IsWhatIsBehindThePrefix) {
    EXPECT_EQ(PeerStoreError::directoryCreate("why").detail(), "why");
    EXPECT_EQ(PeerStoreError::decode("why").detail(), "why");
    EXPECT_EQ(PeerStoreError::decode("why").description(), "PeerRecord decode failed: why");
}

} // namespace
} // namespace orlinth
