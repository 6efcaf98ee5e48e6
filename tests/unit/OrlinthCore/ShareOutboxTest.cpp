#include "OrlinthCore/Share/ShareOutbox.h"

#include "fakes/CrashTrials.h"
#include "fakes/FakeBusSignals.h"
#include "fakes/MemoryFileSystem.h"
#include "fakes/TemporaryFolder.h"
#include "platform/linux/LinuxFileSystem.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <sys/stat.h>

namespace orlinth {
namespace {

using fakes::MemoryFileSystem;
using fakes::Operation;
using testing::ElementsAre;
using testing::IsEmpty;
using Peers = std::vector<ShareOutbox::SharePeer>;

const platform::UserDirectories directories{
    .data = "/home/ann/.local/share", .config = "/home/ann/.config", .downloads = "/home/ann/Downloads"};
const platform::Path folder = "/home/ann/.local/share/group.com.tarvinex.orlinth";
const platform::Path file = folder / "peers.json";
const Peers two = {{.hostname = "Pixel-8", .pubkey = PeerKey("a/b+c="), .subtitle = "192.168.1.20"},
                   {.hostname = "Tafel \"Küche\"", .pubkey = PeerKey("d"), .subtitle = ""}};

class ShareOutboxTest : public testing::Test {
protected:
    void put(const std::string& text) { files.put(file, text, 0600); }

    MemoryFileSystem files;
    ShareOutbox outbox{files, directories};
};

TEST_F(ShareOutboxTest, LiesInAFolderOfItsOwnInTheUsersData) {
    EXPECT_STREQ(ShareOutbox::appGroupID, "group.com.tarvinex.orlinth");
    EXPECT_EQ(outbox.peersFileURL(), file);
    EXPECT_EQ(outbox.outboxRoot(), folder / "Outbox");
}

TEST_F(ShareOutboxTest, MakesNothingByReading) {
    EXPECT_THAT(outbox.readPeers(), IsEmpty());
    EXPECT_THAT(files.allFiles(), IsEmpty());
    EXPECT_EQ(files.mutations(), 0U);
}

TEST_F(ShareOutboxTest, ReadsWhatItWrote) {
    outbox.writePeers(two);
    EXPECT_EQ(outbox.readPeers(), two);
    EXPECT_EQ(ShareOutbox(files, directories).readPeers(), two);
}

TEST_F(ShareOutboxTest, WritesTheKeysInTheirOrderWithoutEscapingSlashes) {
    outbox.writePeers(two);
    EXPECT_EQ(files.content(file), R"([{"hostname":"Pixel-8","pubkey":"a/b+c=","subtitle":"192.168.1.20"},)"
                                   R"({"hostname":"Tafel \"Küche\"","pubkey":"d","subtitle":""}])");
}

TEST_F(ShareOutboxTest, WritesAnEmptyListAsOne) {
    outbox.writePeers(two);
    outbox.writePeers({});
    EXPECT_EQ(files.content(file), "[]");
    EXPECT_THAT(outbox.readPeers(), IsEmpty());
}

TEST_F(ShareOutboxTest, ReplacesTheListAndLeavesNothingElse) {
    outbox.writePeers(two);
    outbox.writePeers({two.back()});
    EXPECT_THAT(outbox.readPeers(), ElementsAre(two.back()));
    EXPECT_THAT(files.allFiles(), ElementsAre(file.native()));
}

TEST_F(ShareOutboxTest, MakesFolderAndFileForTheOwnerAlone) {
    outbox.writePeers(two);
    EXPECT_EQ(files.status(folder).value().permissions, 0700U);
    EXPECT_EQ(files.status(file).value().permissions, 0600U);
}

TEST_F(ShareOutboxTest, WritesAgainForTheOwnerAloneWhereTheFileWasOpenToOthers) {
    files.put(file, "[]", 0644);
    outbox.writePeers(two);
    EXPECT_EQ(files.status(file).value().permissions, 0600U);
}

TEST_F(ShareOutboxTest, ReadsAnyLayoutAndOverlooksOtherKeys) {
    put("[ {\"subtitle\" : \"s\", \"icon\": 3,\n\"pubkey\":\"p\", \"hostname\":\"h\\/x\"} ]\n");
    EXPECT_THAT(outbox.readPeers(), ElementsAre(ShareOutbox::SharePeer{"h/x", PeerKey("p"), "s"}));
}

TEST_F(ShareOutboxTest, ReadsAMalformedFileAsAnEmptyList) {
    const std::string peer = R"({"hostname":"h","pubkey":"p","subtitle":"s"})";
    put("[" + peer + "]");
    ASSERT_EQ(outbox.readPeers().size(), 1U);
    for (const std::string& text : {std::string(), std::string("["), "[" + peer, "[" + peer + "]x", "[" + peer + ",]",
                                    peer, std::string("null"), std::string("\"x\""), R"({"peers":[)" + peer + "]}",
                                    R"({"first":)" + peer + "}", std::string("\xFF\xFE"), std::string(100000, '[')}) {
        put(text);
        EXPECT_THAT(outbox.readPeers(), IsEmpty()) << text.substr(0, 100);
    }
}

TEST_F(ShareOutboxTest, ReadsAListWithOneMalformedEntryAsAnEmptyOne) {
    const std::string peer = R"({"hostname":"h","pubkey":"p","subtitle":"s"})";
    for (const char* const entry :
         {R"({})", R"({"pubkey":"p","subtitle":"s"})", R"({"hostname":"h","subtitle":"s"})",
          R"({"hostname":"h","pubkey":"p"})", R"({"hostname":1,"pubkey":"p","subtitle":"s"})",
          R"({"hostname":"h","pubkey":null,"subtitle":"s"})", R"({"hostname":"h","pubkey":"p","subtitle":[]})", "null",
          "3", R"("h")", R"(["h","p","s"])", "[]"}) {
        put("[" + peer + "," + entry + "," + peer + "]");
        EXPECT_THAT(outbox.readPeers(), IsEmpty()) << entry;
        put(std::string("[") + entry + "]");
        EXPECT_THAT(outbox.readPeers(), IsEmpty()) << entry;
    }
}

TEST_F(ShareOutboxTest, ReadsAnUnreadableFileAsAnEmptyList) {
    outbox.writePeers(two);
    for (const Operation operation : {Operation::open, Operation::read}) {
        files.addFault({.operation = operation, .errorNumber = EIO});
        EXPECT_THAT(outbox.readPeers(), IsEmpty());
        files.clearFaults();
    }
    EXPECT_EQ(outbox.readPeers(), two) << "once it can be read again";
}

TEST_F(ShareOutboxTest, ReadsAFolderInTheFilesPlaceAsAnEmptyListAndLeavesIt) {
    files.putFolder(file);
    EXPECT_THAT(outbox.readPeers(), IsEmpty());
    outbox.writePeers(two);
    EXPECT_EQ(files.status(file).value().kind, platform::FileKind::directory);
}

TEST_F(ShareOutboxTest, KeepsAListThatIsNotUtf8Readable) {
    outbox.writePeers({{.hostname = "a\xFF", .pubkey = PeerKey("p"), .subtitle = "s"}});
    EXPECT_THAT(outbox.readPeers(), ElementsAre(ShareOutbox::SharePeer{"a\xEF\xBF\xBD", PeerKey("p"), "s"}));
}

TEST_F(ShareOutboxTest, HasNoPlacesWhereThereCanBeNoContainer) {
    files.put(folder, "a file is in its place");
    EXPECT_EQ(outbox.outboxRoot(), std::nullopt);
    EXPECT_EQ(outbox.peersFileURL(), std::nullopt);
    outbox.writePeers(two);
    EXPECT_THAT(outbox.readPeers(), IsEmpty());
    EXPECT_THAT(files.allFiles(), ElementsAre(folder.native()));
}

TEST_F(ShareOutboxTest, MakesTheContainerForWhoeverAsksForAPlaceInItButNotTheOutbox) {
    EXPECT_EQ(outbox.outboxRoot(), folder / "Outbox");
    EXPECT_EQ(files.status(folder).value().permissions, 0700U);
    EXPECT_FALSE(files.exists(folder / "Outbox"));
}

TEST_F(ShareOutboxTest, RingsWithANameAndNothingElse) {
    fakes::FakeBusSignals signals;
    ShareOutbox::postPending(signals);
    EXPECT_THAT(signals.posted, ElementsAre("com.tarvinex.orlinth.share-pending"));
}

using Manifest = ShareOutbox::Manifest;

TEST(ShareManifest, HasTheKeysOfItsFields) {
    const Manifest chosen{"8F2C",
                          fromEpochMilliseconds(1'763'712'000'123),
                          {"b.jpg", "a/é.txt"},
                          std::vector{PeerKey("a/b+c="), PeerKey("d")}};
    EXPECT_EQ(
        compactJson(chosen.toJson()),
        R"({"createdAtMs":1763712000123,"files":["b.jpg","a/é.txt"],"id":"8F2C","targetPubkeys":["a/b+c=","d"]})");
}

TEST(ShareManifest, HasNoKeyForTheTargetsWhereThereWasNoChoice) {
    const Manifest manifest{"8F2C", fromEpochMilliseconds(1), {"a"}, std::nullopt};
    EXPECT_EQ(compactJson(manifest.toJson()), R"({"createdAtMs":1,"files":["a"],"id":"8F2C"})");
    const Manifest nobody{"8F2C", fromEpochMilliseconds(1), {"a"}, std::vector<PeerKey>{}};
    EXPECT_EQ(compactJson(nobody.toJson()), R"({"createdAtMs":1,"files":["a"],"id":"8F2C","targetPubkeys":[]})");
}

TEST(ShareManifest, ReadsWhatItWrote) {
    for (const Manifest& manifest :
         {Manifest{"8F2C", fromEpochMilliseconds(INT64_MAX), {"b", "a"}, std::vector{PeerKey("x")}},
          Manifest{"", fromEpochMilliseconds(-1), {}, std::nullopt},
          Manifest{"8F2C", fromEpochMilliseconds(0), {"a"}, std::vector<PeerKey>{}}}) {
        EXPECT_EQ(Manifest::fromJson(parseJson(compactJson(manifest.toJson()))), manifest);
    }
}

TEST(ShareManifest, ReadsAnyLayoutOverlooksOtherKeysAndTakesNullForNoTargets) {
    const Manifest expected{"x", fromEpochMilliseconds(5), {"a"}, std::nullopt};
    EXPECT_EQ(Manifest::fromJson(parseJson(
                  "{ \"more\":[{}],\n\"id\" : \"x\", \"files\":[\"a\"],\"createdAtMs\":5.0, \"targetPubkeys\":null }")),
              expected);
}

TEST(ShareManifest, RefusesWhatIsNoManifest) {
    for (const char* const text :
         {"[]", "3", "{}", R"({"createdAtMs":1,"files":["a"]})", R"({"createdAtMs":1,"id":"x"})",
          R"({"files":["a"],"id":"x"})", R"({"createdAtMs":"1","files":["a"],"id":"x"})",
          R"({"createdAtMs":1.5,"files":["a"],"id":"x"})",
          R"({"createdAtMs":9223372036854775808,"files":["a"],"id":"x"})", R"({"createdAtMs":1,"files":["a"],"id":7})",
          R"({"createdAtMs":1,"files":"a","id":"x"})", R"({"createdAtMs":1,"files":null,"id":"x"})",
          R"({"createdAtMs":1,"files":{"a":"b"},"id":"x"})", R"({"createdAtMs":1,"files":["a",null],"id":"x"})",
          R"({"createdAtMs":1,"files":[["a"]],"id":"x"})",
          R"({"createdAtMs":1,"files":["a"],"id":"x","targetPubkeys":"y"})",
          R"({"createdAtMs":1,"files":["a"],"id":"x","targetPubkeys":{}})",
          R"({"createdAtMs":1,"files":["a"],"id":"x","targetPubkeys":["y",1]})"}) {
        EXPECT_THROW(static_cast<void>(Manifest::fromJson(parseJson(text))), JsonError) << text;
    }
}

TEST(ShareOutboxFailure, IsSilentAndLeavesTheOldOrTheNewList) {
    for (const int errorNumber : {ENOSPC, EACCES, EIO}) {
        fakes::forEveryFailure(
            errorNumber, [](MemoryFileSystem& files) { ShareOutbox(files, directories).writePeers({two.back()}); },
            [](MemoryFileSystem& files) { ShareOutbox(files, directories).writePeers(two); },
            [](MemoryFileSystem& files, const std::exception_ptr& thrown) {
                EXPECT_FALSE(thrown) << describe(thrown);
                const Peers found = ShareOutbox(files, directories).readPeers();
                EXPECT_TRUE(found == two || found == Peers{two.back()});
                EXPECT_THAT(files.allFiles(), ElementsAre(file.native()));
            });
    }
}

TEST(ShareOutboxFailure, IsSilentWhereTheFolderCannotBeMade) {
    fakes::forEveryFailure(
        EACCES, [](MemoryFileSystem&) {},
        [](MemoryFileSystem& files) { ShareOutbox(files, directories).writePeers(two); },
        [](MemoryFileSystem& files, const std::exception_ptr& thrown) {
            EXPECT_FALSE(thrown) << describe(thrown);
            const Peers found = ShareOutbox(files, directories).readPeers();
            EXPECT_TRUE(found.empty() || found == two);
        });
}

TEST(ShareOutboxCrash, LeavesTheOldOrTheNewList) {
    fakes::forEveryCrash([](MemoryFileSystem& files) { ShareOutbox(files, directories).writePeers({two.back()}); },
                         [](MemoryFileSystem& files) { ShareOutbox(files, directories).writePeers(two); },
                         [](const fakes::Aftermath& after) {
                             const Peers found = ShareOutbox(after.files, directories).readPeers();
                             EXPECT_TRUE(found == two || (found == Peers{two.back()} && !after.completed));
                         });
}

TEST(ShareOutboxOnDisk, IsForTheOwnerAlone) {
    const fakes::TemporaryFolder temporary;
    platform::LinuxFileSystem files;
    const ShareOutbox outbox(files, {.data = temporary.path(), .config = "", .downloads = ""});
    outbox.writePeers(two);
    EXPECT_EQ(outbox.readPeers(), two);
    struct stat status{};
    const platform::Path path = outbox.peersFileURL().value();
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
    ASSERT_EQ(::stat(path.parent_path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0700U);
}

} // namespace
} // namespace orlinth
