#include "OrlinthHost/Outbox/OutboxBatches.h"

#include "fakes/TemporaryFolder.h"
#include "fakes/VirtualClock.h"
#include "platform/SystemError.h"
#include "platform/linux/LinuxFileSystem.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <filesystem>
#include <limits>
#include <sys/stat.h>

namespace orlinth::host {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* id = "0A1B2C3D-4E5F-4071-8293-A4B5C6D7E8F9";
constexpr const char* otherId = "1A1B2C3D-4E5F-4071-8293-A4B5C6D7E8F9";

/// On the real file system, where links and pipes are what they are.
class OutboxBatchesTest : public testing::Test {
protected:
    OutboxBatchesTest() { std::filesystem::create_directories(root()); }

    [[nodiscard]] std::filesystem::path container() const { return folder_ / "group.com.tarvinex.orlinth"; }
    [[nodiscard]] std::filesystem::path root() const { return container() / "Outbox"; }
    [[nodiscard]] std::filesystem::path batch() const { return root() / id; }

    void putManifest(const Json& manifest, const char* in = id) {
        fakes::writeText(root() / in / "manifest.json", compactJson(manifest));
    }
    [[nodiscard]] static Json manifest(const std::vector<std::string>& files, const char* of = id) {
        return {{"id", of}, {"createdAtMs", 1000}, {"files", files}};
    }
    /// What reading the batch says.
    [[nodiscard]] std::string fault() {
        try {
            const OutboxBatches::Batch read = batches_.read(BatchId(id));
            for (const std::string& name : read.manifest.files) {
                batches_.checkFile(read, name);
            }
        } catch (const OutboxError& error) {
            return error.description();
        }
        return "";
    }
    /// Its age, by the tests' clock.
    void setAge(const std::filesystem::path& path, std::chrono::seconds age) {
        const auto at = std::chrono::floor<std::chrono::seconds>(clock_.epochMilliseconds() - age);
        const timespec time{.tv_sec = toNumber(at), .tv_nsec = 0};
        const std::array<timespec, 2> both{time, time};
        ASSERT_EQ(0, ::utimensat(AT_FDCWD, path.c_str(), both.data(), 0));
    }

    fakes::TemporaryFolder folder_;
    asio::io_context context_;
    fakes::VirtualClock clock_{context_};
    platform::LinuxFileSystem files_;
    OutboxBatches batches_{files_, clock_, {.data = folder_.path(), .config = {}, .downloads = {}}};
};

TEST_F(OutboxBatchesTest, ReadsABatch) {
    fakes::writeText(batch() / "a.txt", "abc");
    Json json = manifest({"a.txt"});
    json["targetPubkeys"] = {"KEY"};
    putManifest(json);
    const OutboxBatches::Batch read = batches_.read(BatchId(id));
    EXPECT_EQ(batch(), read.folder);
    EXPECT_EQ((ShareOutbox::Manifest{.id = id,
                                     .createdAtMs = fromEpochMilliseconds(1000),
                                     .files = {"a.txt"},
                                     .targetPubkeys = std::vector{PeerKey("KEY")}}),
              read.manifest);
    EXPECT_EQ("", fault());
}

TEST_F(OutboxBatchesTest, TakesOnlyRealFoldersWithTheNameOfABatch) {
    std::filesystem::create_directories(batch());
    std::filesystem::create_directories(root() / "not a batch");
    std::filesystem::create_directories(root() / "0a1b2c3d-4e5f-4071-8293-a4b5c6d7e8f9");
    std::filesystem::create_directory_symlink(batch(), root() / otherId);
    fakes::writeText(root() / "2A1B2C3D-4E5F-4071-8293-A4B5C6D7E8F9", "a file");
    ASSERT_EQ(0, ::mkfifo((root() / "3A1B2C3D-4E5F-4071-8293-A4B5C6D7E8F9").c_str(), 0600));
    EXPECT_THAT(batches_.ids(), ElementsAre(BatchId(id)));
}

TEST_F(OutboxBatchesTest, HasNoneWhereThereIsNoOutbox) {
    std::filesystem::remove_all(container());
    EXPECT_THAT(batches_.ids(), IsEmpty());
    EXPECT_THAT(batches_.setAsideIds(), IsEmpty());
}

TEST_F(OutboxBatchesTest, IsCompleteOnceTheManifestIsThere) {
    fakes::writeText(batch() / "a.txt", "abc");
    EXPECT_FALSE(batches_.isComplete(BatchId(id)));
    putManifest(manifest({"a.txt"}));
    EXPECT_TRUE(batches_.isComplete(BatchId(id)));
}

TEST_F(OutboxBatchesTest, RefusesNamesThatLeaveTheFolder) {
    fakes::writeText(root() / "secret", "abc");
    for (const char* name : {"", ".", "..", "../secret", "/etc/passwd", "sub/a.txt", "a/../b"}) {
        putManifest(manifest({name}));
        EXPECT_THAT(fault(), HasSubstr("not in the folder")) << name;
    }
    putManifest(manifest({std::string("a\0b", 3)}));
    EXPECT_THAT(fault(), HasSubstr("not in the folder"));
}

TEST_F(OutboxBatchesTest, RefusesManifestsThatMakeNoSense) {
    fakes::writeText(batch() / "a.txt", "abc");
    fakes::writeText(batch() / "manifest.json", "{");
    EXPECT_THAT(fault(), HasSubstr("makes no sense"));
    fakes::writeText(batch() / "manifest.json", "[]");
    EXPECT_THAT(fault(), HasSubstr("makes no sense"));
    putManifest({{"id", id}, {"createdAtMs", "1000"}, {"files", {"a.txt"}}});
    EXPECT_THAT(fault(), HasSubstr("makes no sense"));
    putManifest({{"id", id}, {"createdAtMs", 1000}, {"files", {1}}});
    EXPECT_THAT(fault(), HasSubstr("makes no sense"));
    putManifest(manifest({"a.txt"}, otherId));
    EXPECT_THAT(fault(), HasSubstr("another batch"));
    for (const std::int64_t time : {std::int64_t{-1}, std::numeric_limits<std::int64_t>::min()}) {
        putManifest({{"id", id}, {"createdAtMs", time}, {"files", {"a.txt"}}});
        EXPECT_THAT(fault(), HasSubstr("older than any computer"));
    }
    putManifest(manifest({}));
    EXPECT_THAT(fault(), HasSubstr("no file"));
    putManifest(manifest({"a.txt", "a.txt"}));
    EXPECT_THAT(fault(), HasSubstr("twice"));
    putManifest(manifest({"a.txt", "manifest.json"}));
    EXPECT_THAT(fault(), HasSubstr("names itself"));
    Json json = manifest({"a.txt"});
    json["targetPubkeys"] = Json::array();
    putManifest(json);
    EXPECT_THAT(fault(), HasSubstr("no phone"));
    putManifest(manifest({"a.txt"}));
    EXPECT_EQ("", fault());
}

TEST_F(OutboxBatchesTest, ReadsNoMoreOfAManifestThanItMayHave) {
    fakes::writeText(batch() / "a.txt", "abc");
    std::string text = compactJson(manifest({"a.txt"}));
    text.resize(OutboxBatches::maxManifestBytes, ' ');
    fakes::writeText(batch() / "manifest.json", text);
    EXPECT_EQ("", fault());
    text.resize(OutboxBatches::maxManifestBytes + 1, ' ');
    fakes::writeText(batch() / "manifest.json", text);
    EXPECT_THAT(fault(), HasSubstr("larger than"));
}

TEST_F(OutboxBatchesTest, FollowsNoLinkAndWaitsForNoPipe) {
    fakes::writeText(folder_ / "secret", "abc");
    putManifest(manifest({"a.txt"}));
    EXPECT_THAT(fault(), HasSubstr("not there"));
    std::filesystem::create_symlink(folder_ / "secret", batch() / "a.txt");
    EXPECT_THAT(fault(), HasSubstr("a link"));
    std::filesystem::remove(batch() / "a.txt");
    std::filesystem::create_directory(batch() / "a.txt");
    EXPECT_THAT(fault(), HasSubstr("is not a file"));
    std::filesystem::remove(batch() / "a.txt");
    ASSERT_EQ(0, ::mkfifo((batch() / "a.txt").c_str(), 0600));
    EXPECT_THAT(fault(), HasSubstr("is not a file"));
    std::filesystem::remove(batch() / "a.txt");
    fakes::writeText(batch() / "a.txt", "abc");
    EXPECT_EQ("", fault());
    std::filesystem::rename(batch() / "manifest.json", folder_ / "manifest");
    std::filesystem::create_symlink(folder_ / "manifest", batch() / "manifest.json");
    EXPECT_THAT(fault(), HasSubstr("a link"));
    std::filesystem::remove(batch() / "manifest.json");
    ASSERT_EQ(0, ::mkfifo((batch() / "manifest.json").c_str(), 0600));
    EXPECT_THAT(fault(), HasSubstr("is not a file"));
}

TEST_F(OutboxBatchesTest, RemovesTheFolderAndNothingThatALinkInItLeadsTo) {
    fakes::writeText(folder_ / "kept" / "b.txt", "abc");
    fakes::writeText(batch() / "a.txt", "abc");
    putManifest(manifest({"a.txt"}));
    std::filesystem::create_directory_symlink(folder_ / "kept", batch() / "link");
    batches_.remove(BatchId(id));
    EXPECT_FALSE(std::filesystem::exists(batch()));
    EXPECT_EQ("abc", fakes::readText(folder_ / "kept" / "b.txt"));
}

TEST_F(OutboxBatchesTest, RemovesNothingWhereALinkIsInTheFoldersPlace) {
    fakes::writeText(folder_ / "moved" / "a.txt", "abc");
    std::filesystem::create_directory_symlink(folder_ / "moved", batch());
    EXPECT_TRUE(batches_.isGone(BatchId(id)));
    EXPECT_THROW(batches_.remove(BatchId(id)), platform::SystemError);
    EXPECT_EQ("abc", fakes::readText(folder_ / "moved" / "a.txt"));
    EXPECT_TRUE(std::filesystem::is_symlink(batch()));
    std::filesystem::remove(batch());
    std::filesystem::create_symlink(batch(), batch()); // leads to itself
    EXPECT_TRUE(batches_.isGone(BatchId(id)));
    EXPECT_THAT(batches_.ids(), IsEmpty());
    std::filesystem::remove(batch());
    EXPECT_TRUE(batches_.isGone(BatchId(id)));
    std::filesystem::create_directory(batch());
    EXPECT_FALSE(batches_.isGone(BatchId(id)));
}

TEST_F(OutboxBatchesTest, LeavesTheManifestWhereTheFolderCannotBeEmptied) {
    putManifest(manifest({"a.txt"}));
    fakes::writeText(batch() / "sub" / "b.txt", "abc");
    EXPECT_THROW(batches_.remove(BatchId(id)), platform::SystemError);
    EXPECT_TRUE(batches_.isComplete(BatchId(id)));
    EXPECT_EQ("abc", fakes::readText(batch() / "sub" / "b.txt"));
}

TEST_F(OutboxBatchesTest, SetsABatchAsideAsItIsAndBringsItBack) {
    fakes::writeText(batch() / "a.txt", "abc");
    putManifest(manifest({"a.txt"}));
    EXPECT_EQ(container() / "OutboxSetAside" / id, batches_.setAside(BatchId(id)));
    EXPECT_THAT(batches_.ids(), IsEmpty());
    EXPECT_THAT(batches_.setAsideIds(), ElementsAre(BatchId(id)));
    EXPECT_THAT(batches_.readSetAside(BatchId(id)).manifest.files, ElementsAre("a.txt"));
    batches_.bringBack(BatchId(id));
    EXPECT_THAT(batches_.setAsideIds(), IsEmpty());
    EXPECT_EQ("abc", fakes::readText(batch() / "a.txt"));
}

TEST_F(OutboxBatchesTest, ReplacesNothingThatWasSetAsideBefore) {
    fakes::writeText(batch() / "a.txt", "first");
    batches_.setAside(BatchId(id));
    fakes::writeText(batch() / "a.txt", "second");
    const platform::Path second = batches_.setAside(BatchId(id));
    EXPECT_EQ("first", fakes::readText(container() / "OutboxSetAside" / id / "a.txt"));
    EXPECT_EQ("second", fakes::readText(second / "a.txt"));
    fakes::writeText(batch() / "a.txt", "third");
    EXPECT_THROW(batches_.bringBack(BatchId(id)), OutboxError);
}

TEST_F(OutboxBatchesTest, ClearsWhatSomebodyHasBegunAndLeft) {
    fakes::writeText(batch() / "a.txt", "abc");
    fakes::writeText(root() / otherId / "a.txt", "abc");
    fakes::writeText(root() / otherId / "manifest.json", "{}");
    setAge(batch(), 59s);
    setAge(root() / otherId, 1000s);
    EXPECT_EQ(0U, batches_.clearAbandoned({}));
    setAge(batch(), 61s);
    EXPECT_EQ(0U, batches_.clearAbandoned({BatchId(id)})) << "it is known";
    EXPECT_EQ(1U, batches_.clearAbandoned({}));
    EXPECT_THAT(batches_.ids(), ElementsAre(BatchId(otherId)));
}

TEST_F(OutboxBatchesTest, LeavesWhatSomebodyHolds) {
    fakes::writeText(batch() / "a.txt", "abc");
    setAge(batch(), 1000s);
    {
        const std::unique_ptr<platform::File> hold = files_.open(batch(), platform::OpenMode::read);
        ASSERT_TRUE(hold->tryLock());
        EXPECT_EQ(0U, batches_.clearAbandoned({}));
    }
    EXPECT_EQ(1U, batches_.clearAbandoned({}));
}

TEST_F(OutboxBatchesTest, ClearsNothingElse) {
    fakes::writeText(root() / "somebody's" / "a.txt", "abc");
    fakes::writeText(batch() / "sub" / "a.txt", "abc");
    setAge(root() / "somebody's", 1000s);
    setAge(batch(), 1000s);
    EXPECT_EQ(0U, batches_.clearAbandoned({}));
    EXPECT_EQ("abc", fakes::readText(root() / "somebody's" / "a.txt"));
    EXPECT_EQ("abc", fakes::readText(batch() / "sub" / "a.txt"));
}

} // namespace
} // namespace orlinth::host
