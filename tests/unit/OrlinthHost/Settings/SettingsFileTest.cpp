#include "OrlinthHost/Settings/SettingsFile.h"

#include "fakes/CrashTrials.h"
#include "fakes/MemoryFileSystem.h"
#include "platform/SystemError.h"
#include "platform/WholeFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orlinth::host {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

const platform::Path path = "/home/ann/.local/share/Orlinth/settings.json";
const PeerKey phone("hSDwCYkwp1R0i33ctD73Wg2/Og0mOBr066SpjqqbTmo=");
constexpr const char* example = R"({
  "accept" : "ask",
  "dir" : "/home/ann/Incoming",
  "format" : 1,
  "phones" : {
    "hSDwCYkwp1R0i33ctD73Wg2/Og0mOBr066SpjqqbTmo=" : {
      "accept" : "always"
    }
  }
})";

class SettingsFileTest : public testing::Test {
protected:
    SettingsFileTest() { files.putFolder(path.parent_path(), 0700); }

    std::string problemOf(std::string_view content) {
        files.put(path, std::string(content));
        try {
            static_cast<void>(file.load());
        } catch (const SettingsFileError& error) {
            const std::string which = "settings file " + path.string();
            EXPECT_THAT(error.description(), StartsWith(which));
            return error.description().substr(which.size());
        }
        return "";
    }

    fakes::MemoryFileSystem files;
    const platform::UserDirectories directories{
        .home = "/home/ann", .data = "/home/ann/.local/share", .config = "/home/ann/.config", .downloads = {}};
    SettingsFile file{files, directories};
};

TEST_F(SettingsFileTest, IsAsDocumented) {
    SettingsFile::Content content;
    content.set({.id = SettingId::downloads}, "/home/ann/Incoming");
    content.set({.id = SettingId::accept}, "ask");
    content.set({.id = SettingId::accept, .peerKey = phone}, "always");
    file.save(content);
    EXPECT_EQ(example, files.content(path));
    EXPECT_EQ(0600U, files.status(path).value().permissions);
    const SettingsFile::Content read = file.load();
    EXPECT_EQ(content.values, read.values);
    EXPECT_EQ(content.phones, read.phones);
    EXPECT_FALSE(read.isOfLaterVersion);
}

TEST_F(SettingsFileTest, WithoutAFileNothingIsSet) {
    const SettingsFile::Content content = file.load();
    EXPECT_TRUE(content.values.empty());
    EXPECT_EQ(nullptr, content.find({.id = SettingId::accept}));
}

TEST_F(SettingsFileTest, WhatIsRemovedIsGoneAndNothingEmptyIsLeft) {
    files.put(path, example);
    SettingsFile::Content content = file.load();
    content.remove({.id = SettingId::accept, .peerKey = phone});
    content.remove({.id = SettingId::accept, .peerKey = PeerKey("nobody")});
    content.remove({.id = SettingId::downloads});
    content.remove({.id = SettingId::accept});
    file.save(content);
    EXPECT_EQ("{\n  \"format\" : 1\n}", files.content(path));
}

TEST_F(SettingsFileTest, KeepsWhatItDoesNotKnow) {
    files.put(path, R"({"colour":"green","format":1,"phones":{"x":{"accept":"ask","tone":7}}})");
    SettingsFile::Content content = file.load();
    content.remove({.id = SettingId::accept, .peerKey = PeerKey("x")});
    content.set({.id = SettingId::history}, false);
    file.save(content);
    EXPECT_EQ(parseJson(R"({"colour":"green","format":1,"history":false,"phones":{"x":{"tone":7}}})"),
              parseJson(files.content(path).value()));
}

TEST_F(SettingsFileTest, OfALaterFormatWhatIsKnownCounts) {
    files.put(path, R"({"accept":"ask","dir":["new"],"format":2,"phones":[],"max-file":"1G"})");
    const SettingsFile::Content content = file.load();
    EXPECT_TRUE(content.isOfLaterVersion);
    EXPECT_EQ(SettingValue("ask"), *content.find({.id = SettingId::accept}));
    EXPECT_EQ(nullptr, content.find({.id = SettingId::downloads}));
    EXPECT_EQ(SettingValue(std::int64_t{1} << 30), *content.find({.id = SettingId::maxFile}));
}

TEST_F(SettingsFileTest, ThatMakesNoSenseSaysWhere) {
    EXPECT_THAT(problemOf(""), StartsWith(": "));
    EXPECT_THAT(problemOf("{"), StartsWith(": "));
    EXPECT_THAT(problemOf("[]"), StartsWith(": "));
    EXPECT_THAT(problemOf("{}"), HasSubstr("format"));
    EXPECT_EQ(": there is no format 0", problemOf(R"({"format":0})"));
    EXPECT_EQ(": 'accept' must be always, never or ask", problemOf(R"({"accept":"sometimes","format":1})"));
    EXPECT_EQ(": 'dir' must be a path that begins with / or ~/", problemOf(R"({"dir":"in","format":1})"));
    EXPECT_THAT(problemOf(R"({"dir":null,"format":1})"), StartsWith(": 'dir' must be "));
    EXPECT_EQ(": 'phones' must be an object", problemOf(R"({"format":1,"phones":[]})"));
    EXPECT_EQ(": 'phones.x' must be an object", problemOf(R"({"format":1,"phones":{"x":1}})"));
    EXPECT_EQ(": 'phones.x.accept' must be always, never or ask",
              problemOf(R"({"format":1,"phones":{"x":{"accept":1}}})"));
    EXPECT_EQ(": larger than 256 KiB", problemOf(std::string(SettingsFile::maxBytes + 1, ' ')));
    EXPECT_EQ("", problemOf(example));
}

TEST_F(SettingsFileTest, IsNeitherAFolderNorLargerThanItCanBeReadAgain) {
    files.putFolder(path);
    EXPECT_THROW(static_cast<void>(file.load()), SettingsFileError);
    files.removeDirectory(path);
    SettingsFile::Content content;
    for (int i = 0; i < 100; ++i) {
        content.set({.id = SettingId::downloads, .peerKey = PeerKey(std::to_string(i))}, "/" + std::string(4000, 'a'));
    }
    EXPECT_THROW(file.save(content), SettingsFileError);
    EXPECT_FALSE(files.exists(path));
}

TEST_F(SettingsFileTest, ThatCannotBeWrittenStaysAsItWas) {
    files.put(path, example);
    files.addFault({.operation = fakes::Operation::write, .errorNumber = ENOSPC, .nameEnding = ".tmp"});
    SettingsFile::Content content = file.load();
    content.set({.id = SettingId::accept}, "never");
    EXPECT_THROW(file.save(content), platform::SystemError);
    files.clearFaults();
    EXPECT_EQ(example, files.content(path));
}

TEST_F(SettingsFileTest, ThatWasWrittenIsWrittenThoughItsFolderCannotBeFlushed) {
    files.put(path, example);
    SettingsFile::Content content = file.load();
    content.set({.id = SettingId::accept}, "never");
    files.addFault({.operation = fakes::Operation::flushDirectory, .errorNumber = EIO});
    EXPECT_NO_THROW(file.save(content));
    files.clearFaults();
    EXPECT_EQ(SettingValue("never"), *file.load().find({.id = SettingId::accept}));
}

TEST_F(SettingsFileTest, AfterACrashIsTheOldOneOrTheNewOne) {
    const auto acceptIn = [this](fakes::MemoryFileSystem& disk) {
        return std::get<std::string>(*SettingsFile(disk, directories).load().find({.id = SettingId::accept}));
    };
    fakes::forEveryCrash(
        [](fakes::MemoryFileSystem& disk) {
            disk.putFolder(path.parent_path(), 0700);
            disk.put(path, example, 0600);
        },
        [this](fakes::MemoryFileSystem& disk) {
            const SettingsFile settings(disk, directories);
            SettingsFile::Content content = settings.load();
            content.set({.id = SettingId::accept}, "never");
            settings.save(content);
        },
        [&](const fakes::Aftermath& after) {
            const std::string accept = acceptIn(after.files);
            EXPECT_TRUE(accept == "never" || (accept == "ask" && !after.completed)) << accept;
        });
}

} // namespace
} // namespace orlinth::host
