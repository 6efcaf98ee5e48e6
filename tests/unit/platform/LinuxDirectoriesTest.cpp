#include "platform/linux/LinuxDirectories.h"

#include "fakes/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <map>
#include <pwd.h>
#include <unistd.h>

namespace orlinth::platform {
namespace {

Environment environmentOf(std::map<std::string, std::string> variables) {
    return [variables = std::move(variables)](const char* name) -> const char* {
        const auto found = variables.find(name);
        return found == variables.end() ? nullptr : found->second.c_str();
    };
}

TEST(LinuxDirectories, LieBelowHomeByDefault) {
    const UserDirectories directories = linuxUserDirectories(environmentOf({{"HOME", "/nonexistent/ann"}}));
    EXPECT_EQ(directories.data, "/nonexistent/ann/.local/share");
    EXPECT_EQ(directories.config, "/nonexistent/ann/.config");
    EXPECT_EQ(directories.downloads, "/nonexistent/ann/Downloads");
}

TEST(LinuxDirectories, FollowTheVariablesWhereTheyAreAbsolute) {
    const UserDirectories directories = linuxUserDirectories(
        environmentOf({{"HOME", "/nonexistent/ann"}, {"XDG_DATA_HOME", "/d/"}, {"XDG_CONFIG_HOME", "/nonexistent/c"}}));
    EXPECT_EQ(directories.data, "/d");
    EXPECT_EQ(directories.config, "/nonexistent/c");
}

TEST(LinuxDirectories, IgnoreRelativeAndEmptyVariables) {
    const UserDirectories directories = linuxUserDirectories(
        environmentOf({{"HOME", "/nonexistent/ann"}, {"XDG_DATA_HOME", "data"}, {"XDG_CONFIG_HOME", ""}}));
    EXPECT_EQ(directories.data, "/nonexistent/ann/.local/share");
    EXPECT_EQ(directories.config, "/nonexistent/ann/.config");
}

TEST(LinuxDirectories, TakeHomeFromTheUserDatabaseWhereTheVariableIsMissing) {
    const passwd* const entry = ::getpwuid(::getuid());
    const Path home = entry != nullptr && entry->pw_dir != nullptr ? entry->pw_dir : "/";
    EXPECT_EQ(linuxUserDirectories(environmentOf({})).data, home / ".local/share");
    EXPECT_EQ(linuxUserDirectories(environmentOf({{"HOME", "relative"}})).data, home / ".local/share");
}

TEST(LinuxDirectories, TakeTheDownloadFolderFromTheUsersSettings) {
    const fakes::TemporaryFolder folder;
    fakes::writeText(folder / "user-dirs.dirs", "# comment\nXDG_DESKTOP_DIR=\"$HOME/Desktop\"\n"
                                                "XDG_DOWNLOAD_DIR=\"$HOME/Heruntergeladen\"\n");
    const UserDirectories directories =
        linuxUserDirectories(environmentOf({{"HOME", "/home/ann"}, {"XDG_CONFIG_HOME", folder.path().string()}}));
    EXPECT_EQ(directories.downloads, "/home/ann/Heruntergeladen");
}

TEST(LinuxDirectories, ListTheDataFoldersTheUsersFirst) {
    EXPECT_THAT(linuxDataDirectories(environmentOf({{"HOME", "/h"}})),
                testing::ElementsAre("/h/.local/share", "/usr/local/share", "/usr/share"));
    EXPECT_THAT(linuxDataDirectories(
                    environmentOf({{"HOME", "/h"}, {"XDG_DATA_HOME", "/d"}, {"XDG_DATA_DIRS", "/a/::relative:/b"}})),
                testing::ElementsAre("/d", "/a", "/b"));
}

TEST(UserDirs, UnderstandsHomeAbsolutePathsEscapesAndBlanks) {
    EXPECT_EQ(downloadDirectoryIn("XDG_DOWNLOAD_DIR=\"$HOME/In box\"", "/h"), "/h/In box");
    EXPECT_EQ(downloadDirectoryIn("  XDG_DOWNLOAD_DIR =\t\"/srv/in\"  # here\n", "/h"), "/srv/in");
    EXPECT_EQ(downloadDirectoryIn(R"(XDG_DOWNLOAD_DIR="/a\"b\\c\$d")", "/h"), R"(/a"b\c$d)");
    EXPECT_EQ(downloadDirectoryIn("XDG_DOWNLOAD_DIR=\"$HOME/\"\n", "/h"), "/h");
    EXPECT_EQ(downloadDirectoryIn("XDG_DOWNLOAD_DIR=\"$HOME\"\n", "/h"), "/h");
}

TEST(UserDirs, TakesTheLastValidLine) {
    EXPECT_EQ(downloadDirectoryIn("XDG_DOWNLOAD_DIR=\"/a\"\nXDG_DOWNLOAD_DIR=\"/b\"\nXDG_DOWNLOAD_DIR=\"c\"\n", "/h"),
              "/b");
}

TEST(UserDirs, RefusesWhatIsNoAbsolutePathInQuotes) {
    for (const char* line :
         {"", "XDG_DOWNLOAD_DIR", "XDG_DOWNLOAD_DIR=", "XDG_DOWNLOAD_DIR=/plain", "XDG_DOWNLOAD_DIR=\"/open",
          "XDG_DOWNLOAD_DIR=\"relative\"", "XDG_DOWNLOAD_DIR=\"$HOMER/x\"", "XDG_DOWNLOAD_DIR=\"$(id)/x\"",
          "XDG_DOWNLOAD_DIR=\"/open\\\"", "#XDG_DOWNLOAD_DIR=\"/a\"", "XDG_DOWNLOAD_DIRS=\"/a\"",
          "XDG_DOWNLOAD_DIR=\""}) {
        EXPECT_EQ(downloadDirectoryIn(line, "/h"), std::nullopt) << line;
    }
}

} // namespace
} // namespace orlinth::platform
