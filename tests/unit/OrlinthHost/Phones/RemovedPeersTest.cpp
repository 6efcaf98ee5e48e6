#include "OrlinthHost/Phones/RemovedPeers.h"

#include "OrlinthHost/HostError.h"
#include "fakes/CrashTrials.h"
#include "fakes/MemoryFileSystem.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

namespace orlinth::host {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const platform::Path folder = "/home/ann/.local/share/Orlinth";
const platform::Path file = folder / RemovedPeers::fileName;

/// A key that is the number, for lists of many.
platform::PublicKey keyOf(std::size_t number) {
    Bytes bytes(32);
    bytes[0] = std::byte(number & 0xFFU);
    bytes[1] = std::byte(number >> 8U);
    return *platform::PublicKey::fromBytes(bytes);
}

class RemovedPeersTest : public testing::Test {
protected:
    /// What every call says of a file that it cannot read.
    void expectTrouble(const std::function<void()>& call, const std::string& text) {
        try {
            call();
            ADD_FAILURE() << "nothing was thrown";
        } catch (const HostError& error) {
            EXPECT_THAT(error.description(), HasSubstr(text));
            EXPECT_THAT(error.hint(), HasSubstr("It is " + file.string() + ". If it is damaged, move it away"));
        }
    }

    fakes::MemoryFileSystem files;
    RemovedPeers removed{files, folder};
    const platform::PublicKey one = keyOf(1);
    const platform::PublicKey two = keyOf(2);
};

TEST_F(RemovedPeersTest, AreNoneWithoutAFile) {
    EXPECT_THAT(removed.load(), IsEmpty());
    removed.forget(one);
    EXPECT_THAT(files.allFiles(), IsEmpty()) << "no file is made to forget somebody";
}

TEST_F(RemovedPeersTest, AreRememberedInTheirOrderEachOnceTheLastOneLast) {
    removed.add(one);
    removed.add(two);
    removed.add(one);
    EXPECT_THAT(removed.load(), ElementsAre(two, one));
    EXPECT_THAT(RemovedPeers(files, folder).load(), ElementsAre(two, one)) << "also by whoever comes later";
}

TEST_F(RemovedPeersTest, AreReadableByTheOwnerAlone) {
    removed.add(one);
    EXPECT_EQ(files.status(file)->permissions & 0777U, 0600U);
    EXPECT_EQ(files.status(folder)->permissions & 0777U, 0700U);
    EXPECT_EQ(parseJson(toBytes(*files.content(file))), Json({{"removed", {one.base64()}}}));
}

TEST_F(RemovedPeersTest, AreForgottenWhenTheyArePairedAgain) {
    removed.add(one);
    removed.add(two);
    removed.forget(one);
    EXPECT_THAT(removed.load(), ElementsAre(two));
}

TEST_F(RemovedPeersTest, AreNotWrittenAgainWithoutAChange) {
    removed.add(one);
    const std::size_t before = files.count(fakes::Operation::rename);
    removed.forget(two);
    EXPECT_EQ(files.count(fakes::Operation::rename), before);
}

TEST_F(RemovedPeersTest, AreAThousandAtMostAndTheOldestGo) {
    std::string list;
    for (std::size_t number = 0; number < RemovedPeers::maxKeys; ++number) {
        list += (number == 0 ? "\"" : ",\"") + keyOf(number).base64() + "\"";
    }
    files.put(file, "{\"removed\":[" + list + "]}");
    removed.add(keyOf(5000));
    const std::vector<platform::PublicKey> keys = removed.load();
    ASSERT_EQ(keys.size(), RemovedPeers::maxKeys);
    EXPECT_EQ(keys.front(), keyOf(1));
    EXPECT_EQ(keys.back(), keyOf(5000));
}

TEST_F(RemovedPeersTest, InARuinedFileAreNeverOverwritten) {
    for (const char* content : {"", "{", "[]", "{}", R"({"removed":{}})", R"({"removed":[1]})",
                                R"({"removed":["AAAA"]})", R"({"removed":["not Base64"]})"}) {
        files.put(file, content);
        expectTrouble([this] { static_cast<void>(removed.load()); }, "cannot read the list of removed phones: ");
        expectTrouble([this] { removed.add(one); }, "cannot read the list of removed phones: ");
        expectTrouble([this] { removed.forget(one); }, "cannot read the list of removed phones: ");
        EXPECT_EQ(files.content(file), content);
    }
}

TEST_F(RemovedPeersTest, StayAsTheyWereIfTheDiskIsFull) {
    removed.add(one);
    files.setCapacity(files.content(file)->size());
    expectTrouble([this] { removed.add(two); }, "cannot change the list of removed phones: ");
    EXPECT_THAT(removed.load(), ElementsAre(one));
    EXPECT_FALSE(files.isLocked(file));
}

TEST_F(RemovedPeersTest, AreAfterACrashAsBeforeOrAsAfterTheChange) {
    fakes::forEveryCrash([this](fakes::MemoryFileSystem& disk) { RemovedPeers(disk, folder).add(one); },
                         [this](fakes::MemoryFileSystem& disk) { RemovedPeers(disk, folder).add(two); },
                         [this](const fakes::Aftermath& after) {
                             const std::vector<platform::PublicKey> keys = RemovedPeers(after.files, folder).load();
                             const bool isNew = keys == std::vector{one, two};
                             EXPECT_TRUE(isNew || keys == std::vector{one});
                             EXPECT_TRUE(isNew || !after.completed) << "what was done is done";
                         });
}

} // namespace
} // namespace orlinth::host
