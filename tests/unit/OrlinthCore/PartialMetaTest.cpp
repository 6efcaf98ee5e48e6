#include "OrlinthCore/Receiving/PartialMeta.h"

#include "fakes/CrashTrials.h"
#include "fakes/MemoryFileSystem.h"
#include "fakes/TemporaryFolder.h"
#include "platform/SystemError.h"
#include "platform/linux/LinuxFileSystem.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orlinth {
namespace {

using fakes::Aftermath;
using fakes::MemoryFileSystem;
using fakes::Operation;
using testing::ElementsAre;

const platform::Path dir = "/downloads";
const platform::FileName partial("x.pdf.partial");
const platform::Path sidecar = "/downloads/x.pdf.partial.meta.json";
const PartialMeta example{TransferId("6F1C2B0E-4D0A-4E39-9C8A-2F5D7A1B3C4D"), 1048576,
                          fromEpochMilliseconds(1731686400000)};

void save(platform::FileSystem& files, const PartialMeta& meta) {
    PartialMetaIO::save(*files.openFolder(dir), meta, partial);
}

std::optional<PartialMeta> load(platform::FileSystem& files) {
    return PartialMetaIO::load(*files.openFolder(dir), partial);
}

void removeSidecar(platform::FileSystem& files) {
    PartialMetaIO::remove(*files.openFolder(dir), partial);
}

TEST(PartialMeta, LiesBesideThePartialFile) {
    EXPECT_EQ(PartialMetaIO::metaName(partial).text(), sidecar.filename());
}

TEST(PartialMeta, IsWrittenInThePrettyForm) {
    MemoryFileSystem files;
    files.putFolder("/downloads");
    save(files, example);
    EXPECT_EQ(files.content(sidecar), "{\n"
                                      "  \"advertised_size\" : 1048576,\n"
                                      "  \"started_at_epoch_ms\" : 1731686400000,\n"
                                      "  \"transfer_id\" : \"6F1C2B0E-4D0A-4E39-9C8A-2F5D7A1B3C4D\"\n"
                                      "}");
    EXPECT_EQ(load(files), example);
    EXPECT_THAT(files.list("/downloads"), ElementsAre("x.pdf.partial.meta.json"));
}

TEST(PartialMeta, KeepsAnyIdentifierAndNumber) {
    MemoryFileSystem files;
    files.putFolder("/downloads");
    for (const PartialMeta& meta :
         {PartialMeta{TransferId(), 0, fromEpochMilliseconds(0)},
          PartialMeta{TransferId("a/\u00e4\"\n"), INT64_MAX, fromEpochMilliseconds(INT64_MIN)}}) {
        save(files, meta);
        EXPECT_EQ(load(files), meta);
    }
}

TEST(PartialMeta, ReplacesAnExistingSidecarWhole) {
    MemoryFileSystem files;
    files.put(sidecar, std::string(5000, 'x'));
    save(files, example);
    EXPECT_EQ(load(files), example);
}

TEST(PartialMeta, DecodesWithForeignMembers) {
    MemoryFileSystem files;
    files.put(sidecar, R"({"transfer_id":"t","advertised_size":1,"started_at_epoch_ms":2,"colour":"blue"})");
    EXPECT_EQ(load(files), (PartialMeta{TransferId("t"), 1, fromEpochMilliseconds(2)}));
}

TEST(PartialMeta, SaysOfWhomItIsIfThatIsKnown) {
    MemoryFileSystem files;
    files.putFolder(dir);
    PartialMeta meta = example;
    meta.peer_pubkey = PeerKey("hSDwCYkwp1R0i33ctD73Wg2/Og0mOBr066SpjqqbTmo=");
    save(files, meta);
    EXPECT_EQ(files.content(sidecar), "{\n"
                                      "  \"advertised_size\" : 1048576,\n"
                                      "  \"peer_pubkey\" : \"hSDwCYkwp1R0i33ctD73Wg2/Og0mOBr066SpjqqbTmo=\",\n"
                                      "  \"started_at_epoch_ms\" : 1731686400000,\n"
                                      "  \"transfer_id\" : \"6F1C2B0E-4D0A-4E39-9C8A-2F5D7A1B3C4D\"\n"
                                      "}");
    EXPECT_EQ(load(files), meta);
    EXPECT_TRUE(meta.mayBeContinuedBy(meta.transfer_id, meta.peer_pubkey));
    EXPECT_FALSE(meta.mayBeContinuedBy(meta.transfer_id, PeerKey("another phone")));
    EXPECT_FALSE(meta.mayBeContinuedBy(TransferId("another transfer"), meta.peer_pubkey));
    EXPECT_TRUE(example.mayBeContinuedBy(example.transfer_id, PeerKey("any phone")))
        << "as older versions have written it";
}

TEST(PartialMeta, IsNothingWhereAMemberIsMissingOrOfAnotherType) {
    MemoryFileSystem files;
    for (const char* key : {"transfer_id", "advertised_size", "started_at_epoch_ms"}) {
        Json json = example.toJson();
        json.erase(key);
        files.put(sidecar, compactJson(json));
        EXPECT_EQ(load(files), std::nullopt) << key;
        json[key] = Json::array();
        files.put(sidecar, compactJson(json));
        EXPECT_EQ(load(files), std::nullopt) << key;
    }
    Json json = example.toJson();
    json["peer_pubkey"] = 7;
    files.put(sidecar, compactJson(json));
    EXPECT_EQ(load(files), std::nullopt);
}

TEST(PartialMeta, IsNothingWhereTheSidecarIsMissingTruncatedForeignOrUnreadable) {
    MemoryFileSystem files;
    files.putFolder(dir);
    EXPECT_EQ(load(files), std::nullopt);
    const std::string whole = prettyJson(example.toJson());
    for (std::size_t length = 0; length < whole.size(); ++length) {
        files.put(sidecar, whole.substr(0, length));
        EXPECT_EQ(load(files), std::nullopt) << length;
    }
    files.put(sidecar, "[1,2]");
    EXPECT_EQ(load(files), std::nullopt);
    files.put(sidecar, whole, 0);
    EXPECT_EQ(load(files), std::nullopt);
    files.putFolder(sidecar);
    EXPECT_EQ(load(files), std::nullopt);
}

TEST(PartialMeta, IsRemovedIfItExistsAndQuietlyOtherwise) {
    MemoryFileSystem files;
    files.put(sidecar, "x");
    removeSidecar(files);
    EXPECT_FALSE(files.exists(sidecar));
    const std::size_t mutations = files.mutations();
    removeSidecar(files);
    EXPECT_EQ(files.mutations(), mutations);
    files.put(sidecar, "x");
    files.addFault({.operation = Operation::remove, .errorNumber = EPERM});
    EXPECT_NO_THROW(removeSidecar(files));
    EXPECT_TRUE(files.exists(sidecar));
}

TEST(PartialMeta, ReportsAFailureToSaveInTheSystemsWords) {
    MemoryFileSystem files;
    files.putFolder("/downloads", 0500);
    try {
        save(files, example);
        ADD_FAILURE() << "no error";
    } catch (const platform::SystemError& error) {
        EXPECT_EQ(error.description(), "Permission denied");
    }
}

const PartialMeta older{TransferId("older"), 1, fromEpochMilliseconds(2)};

void prepareOlder(MemoryFileSystem& files) {
    files.put(sidecar, prettyJson(older.toJson()));
}

TEST(PartialMetaCrash, LeavesTheOldOrTheNewSidecar) {
    fakes::forEveryCrash(
        prepareOlder, [](MemoryFileSystem& files) { save(files, example); },
        [](const Aftermath& after) {
            const std::optional<PartialMeta> found = load(after.files);
            EXPECT_TRUE(found == example || (!after.completed && found == older));
            save(after.files, older);
            EXPECT_EQ(load(after.files), older);
        });
}

TEST(PartialMetaFailure, IsReportedAndLeavesAWholeSidecar) {
    for (const int errorNumber : {ENOSPC, EIO, EACCES}) {
        fakes::forEveryFailure(
            errorNumber, prepareOlder, [](MemoryFileSystem& files) { save(files, example); },
            [&](MemoryFileSystem& files, const std::exception_ptr& thrown) {
                EXPECT_EQ(thrown ? describe(thrown) : "no error",
                          platform::SystemError::fromErrno(errorNumber).description());
                const bool renamed = !files.history().empty() && files.history().back().starts_with("rename");
                EXPECT_EQ(load(files), renamed ? example : older);
                EXPECT_EQ(files.list("/downloads").size(), 1U);
            });
    }
}

/// What may have the name of a sidecar without being one: none is read for longer, or further, than a sidecar is.
TEST(PartialMetaIOLoad, BelievesNothingButARegularFileOfASensibleSize) {
    const std::string good = prettyJson(PartialMeta{TransferId("ID-1"), 10, fromEpochMilliseconds(5)}.toJson());
    fakes::MemoryFileSystem files;
    files.put(sidecar, good);
    ASSERT_TRUE(load(files));
    files.put(sidecar, good + std::string(static_cast<std::size_t>(PartialMetaIO::maxBytes) - good.size(), ' '));
    EXPECT_TRUE(load(files));
    files.put(sidecar, good + std::string(static_cast<std::size_t>(PartialMetaIO::maxBytes) - good.size() + 1, ' '));
    const std::size_t reads = files.count(Operation::read);
    EXPECT_FALSE(load(files)) << "huge";
    EXPECT_EQ(files.count(Operation::read), reads) << "not a byte of it";
    files.put("/elsewhere", good);
    files.putLink(sidecar, "/elsewhere");
    EXPECT_FALSE(load(files)) << "a link";
    files.putFolder(sidecar);
    EXPECT_FALSE(load(files)) << "a folder";
    files.putSpecial(sidecar);
    EXPECT_FALSE(load(files)) << "a pipe";
    files.put(sidecar, good);
    ASSERT_TRUE(load(files));
    files.setOwner(sidecar, 1001);
    EXPECT_FALSE(load(files)) << "another user's";
    files.setOwner(dir, 1001);
    EXPECT_TRUE(load(files)) << "whose folder it is";
}

TEST(PartialMetaIOSave, ReplacesALinkItself) {
    MemoryFileSystem files;
    files.put("/home/ann/.bashrc", "precious");
    files.putLink(sidecar, "/home/ann/.bashrc");
    save(files, example);
    EXPECT_EQ(files.content("/home/ann/.bashrc"), "precious");
    EXPECT_EQ(load(files), example);
    files.putLink(sidecar, "/home/ann/.bash_profile"); // which is not there
    save(files, example);
    EXPECT_FALSE(files.exists("/home/ann/.bash_profile"));
    EXPECT_EQ(load(files), example);
}

TEST(PartialMetaIOFlush, DoesNotFollowALink) {
    MemoryFileSystem files;
    files.put("/home/ann/.bashrc", "precious");
    files.putLink(sidecar, "/home/ann/.bashrc");
    EXPECT_THROW(PartialMetaIO::flush(*files.openFolder(dir), partial), platform::SystemError);
}

TEST(PartialMetaIOLoad, DoesNotWaitForAPipeOfTheRealFileSystem) {
    const fakes::TemporaryFolder folder;
    const platform::Path pipe = folder / "a.partial.meta.json";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    const int writer = ::open(pipe.c_str(), O_RDWR | O_CLOEXEC); // somebody who says nothing
    ASSERT_GE(writer, 0);
    platform::LinuxFileSystem files;
    EXPECT_FALSE(PartialMetaIO::load(*files.openFolder(folder.path()), platform::FileName("a.partial")));
    ::close(writer);
    ::unlink(pipe.c_str());
    fakes::writeText(folder / "whole",
                     prettyJson(PartialMeta{TransferId("ID-1"), 10, fromEpochMilliseconds(5)}.toJson()));
    std::filesystem::create_symlink("whole", pipe);
    EXPECT_FALSE(PartialMetaIO::load(*files.openFolder(folder.path()), platform::FileName("a.partial")));
    std::filesystem::rename(folder / "whole", pipe);
    EXPECT_TRUE(PartialMetaIO::load(*files.openFolder(folder.path()), platform::FileName("a.partial")));
}

} // namespace
} // namespace orlinth
