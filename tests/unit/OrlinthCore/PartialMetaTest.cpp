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

const platform::Path partial = "/downloads/x.pdf.partial";
const platform::Path sidecar = "/downloads/x.pdf.partial.meta.json";
const PartialMeta example{"6F1C2B0E-4D0A-4E39-9C8A-2F5D7A1B3C4D", 1048576, 1731686400000};

TEST(PartialMeta, LiesBesideThePartialFile) {
    EXPECT_EQ(PartialMetaIO::metaURL(partial), sidecar);
}

TEST(PartialMeta, IsWrittenInThePrettyForm) {
    MemoryFileSystem files;
    files.putFolder("/downloads");
    PartialMetaIO::save(files, example, partial);
    EXPECT_EQ(files.content(sidecar), "{\n"
                                      "  \"advertised_size\" : 1048576,\n"
                                      "  \"started_at_epoch_ms\" : 1731686400000,\n"
                                      "  \"transfer_id\" : \"6F1C2B0E-4D0A-4E39-9C8A-2F5D7A1B3C4D\"\n"
                                      "}");
    EXPECT_EQ(PartialMetaIO::load(files, partial), example);
    EXPECT_THAT(files.list("/downloads"), ElementsAre("x.pdf.partial.meta.json"));
}

TEST(PartialMeta, KeepsAnyIdentifierAndNumber) {
    MemoryFileSystem files;
    files.putFolder("/downloads");
    for (const PartialMeta& meta : {PartialMeta{"", 0, 0}, PartialMeta{"a/\u00e4\"\n", INT64_MAX, INT64_MIN}}) {
        PartialMetaIO::save(files, meta, partial);
        EXPECT_EQ(PartialMetaIO::load(files, partial), meta);
    }
}

TEST(PartialMeta, ReplacesAnExistingSidecarWhole) {
    MemoryFileSystem files;
    files.put(sidecar, std::string(5000, 'x'));
    PartialMetaIO::save(files, example, partial);
    EXPECT_EQ(PartialMetaIO::load(files, partial), example);
}

TEST(PartialMeta, DecodesWithForeignMembers) {
    MemoryFileSystem files;
    files.put(sidecar, R"({"transfer_id":"t","advertised_size":1,"started_at_epoch_ms":2,"colour":"blue"})");
    EXPECT_EQ(PartialMetaIO::load(files, partial), (PartialMeta{"t", 1, 2}));
}

TEST(PartialMeta, IsNothingWhereAMemberIsMissingOrOfAnotherType) {
    MemoryFileSystem files;
    for (const char* key : {"transfer_id", "advertised_size", "started_at_epoch_ms"}) {
        Json json = example.toJson();
        json.erase(key);
        files.put(sidecar, compactJson(json));
        EXPECT_EQ(PartialMetaIO::load(files, partial), std::nullopt) << key;
        json[key] = Json::array();
        files.put(sidecar, compactJson(json));
        EXPECT_EQ(PartialMetaIO::load(files, partial), std::nullopt) << key;
    }
}

TEST(PartialMeta, IsNothingWhereTheSidecarIsMissingTruncatedForeignOrUnreadable) {
    MemoryFileSystem files;
    EXPECT_EQ(PartialMetaIO::load(files, partial), std::nullopt);
    const std::string whole = prettyJson(example.toJson());
    for (std::size_t length = 0; length < whole.size(); ++length) {
        files.put(sidecar, whole.substr(0, length));
        EXPECT_EQ(PartialMetaIO::load(files, partial), std::nullopt) << length;
    }
    files.put(sidecar, "[1,2]");
    EXPECT_EQ(PartialMetaIO::load(files, partial), std::nullopt);
    files.put(sidecar, whole, 0);
    EXPECT_EQ(PartialMetaIO::load(files, partial), std::nullopt);
    files.putFolder(sidecar);
    EXPECT_EQ(PartialMetaIO::load(files, partial), std::nullopt);
}

TEST(PartialMeta, IsRemovedIfItExistsAndQuietlyOtherwise) {
    MemoryFileSystem files;
    files.put(sidecar, "x");
    PartialMetaIO::remove(files, partial);
    EXPECT_FALSE(files.exists(sidecar));
    const std::size_t mutations = files.mutations();
    PartialMetaIO::remove(files, partial);
    EXPECT_EQ(files.mutations(), mutations);
    files.put(sidecar, "x");
    files.addFault({.operation = Operation::remove, .errorNumber = EPERM});
    EXPECT_NO_THROW(PartialMetaIO::remove(files, partial));
    EXPECT_TRUE(files.exists(sidecar));
}

TEST(PartialMeta, ReportsAFailureToSaveInTheSystemsWords) {
    MemoryFileSystem files;
    files.putFolder("/downloads", 0500);
    try {
        PartialMetaIO::save(files, example, partial);
        ADD_FAILURE() << "no error";
    } catch (const platform::SystemError& error) {
        EXPECT_EQ(error.description(), "Permission denied");
    }
}

const PartialMeta older{"older", 1, 2};

void prepareOlder(MemoryFileSystem& files) {
    files.put(sidecar, prettyJson(older.toJson()));
}

TEST(PartialMetaCrash, LeavesTheOldOrTheNewSidecar) {
    fakes::forEveryCrash(
        prepareOlder, [](MemoryFileSystem& files) { PartialMetaIO::save(files, example, partial); },
        [](const Aftermath& after) {
            const std::optional<PartialMeta> found = PartialMetaIO::load(after.files, partial);
            EXPECT_TRUE(found == example || (!after.completed && found == older));
            PartialMetaIO::save(after.files, older, partial);
            EXPECT_EQ(PartialMetaIO::load(after.files, partial), older);
        });
}

TEST(PartialMetaFailure, IsReportedAndLeavesAWholeSidecar) {
    for (const int errorNumber : {ENOSPC, EIO, EACCES}) {
        fakes::forEveryFailure(
            errorNumber, prepareOlder, [](MemoryFileSystem& files) { PartialMetaIO::save(files, example, partial); },
            [&](MemoryFileSystem& files, const std::exception_ptr& thrown) {
                EXPECT_EQ(thrown ? describe(thrown) : "no error",
                          platform::SystemError::fromErrno(errorNumber).description());
                const bool renamed = !files.history().empty() && files.history().back().starts_with("rename");
                EXPECT_EQ(PartialMetaIO::load(files, partial), renamed ? example : older);
                EXPECT_EQ(files.list("/downloads").size(), 1U);
            });
    }
}

/// What may have the name of a sidecar without being one: none is read for longer, or further, than a sidecar is.
TEST(PartialMetaIOLoad, BelievesNothingButARegularFileOfASensibleSize) {
    const std::string good = prettyJson(PartialMeta{"ID-1", 10, 5}.toJson());
    fakes::MemoryFileSystem files;
    files.put(sidecar, good);
    ASSERT_TRUE(PartialMetaIO::load(files, partial));
    files.put(sidecar, good + std::string(static_cast<std::size_t>(PartialMetaIO::maxBytes) - good.size(), ' '));
    EXPECT_TRUE(PartialMetaIO::load(files, partial));
    files.put(sidecar, good + std::string(static_cast<std::size_t>(PartialMetaIO::maxBytes) - good.size() + 1, ' '));
    EXPECT_FALSE(PartialMetaIO::load(files, partial)) << "huge";
    files.put("/elsewhere", good);
    files.putLink(sidecar, "/elsewhere");
    EXPECT_FALSE(PartialMetaIO::load(files, partial)) << "a link";
    files.putFolder(sidecar);
    EXPECT_FALSE(PartialMetaIO::load(files, partial)) << "a folder";
    files.putSpecial(sidecar);
    EXPECT_FALSE(PartialMetaIO::load(files, partial)) << "a pipe";
}

TEST(PartialMetaIOLoad, DoesNotWaitForAPipeOfTheRealFileSystem) {
    const fakes::TemporaryFolder folder;
    const platform::Path pipe = folder / "a.partial.meta.json";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    const int writer = ::open(pipe.c_str(), O_RDWR | O_CLOEXEC); // somebody who says nothing
    ASSERT_GE(writer, 0);
    platform::LinuxFileSystem files;
    EXPECT_FALSE(PartialMetaIO::load(files, folder / "a.partial"));
    ::close(writer);
    ::unlink(pipe.c_str());
    fakes::writeText(folder / "whole", prettyJson(PartialMeta{"ID-1", 10, 5}.toJson()));
    std::filesystem::create_symlink("whole", pipe);
    EXPECT_FALSE(PartialMetaIO::load(files, folder / "a.partial"));
    std::filesystem::rename(folder / "whole", pipe);
    EXPECT_TRUE(PartialMetaIO::load(files, folder / "a.partial"));
}

} // namespace
} // namespace orlinth
