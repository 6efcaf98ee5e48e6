#include "OrlinthHost/Service/DownloadsFolder.h"

#include "OrlinthHost/HostError.h"
#include "fakes/World.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace orlinth::host {
namespace {

class DownloadsFolderTest : public testing::Test {
protected:
    DownloadsFolderTest() {
        world_.system.directories.home = "/home/ann";
        for (const char* folder : {"/home/ann/Downloads", "/home/ann/.config/orlinth", "/home/ann/.local/share/Orlinth",
                                   "/home/ann/.local/share/group.com.tarvinex.orlinth", "/srv"}) {
            world_.files.putFolder(folder);
        }
    }
    /// "" if files may go there.
    [[nodiscard]] std::string objection(const platform::Path& folder) const {
        return objectionToDownloads(home_, folder).value_or("");
    }
    [[nodiscard]] std::string troubleWith(const platform::Path& folder) const {
        try {
            requireWritableFolder(home_, folder);
        } catch (const HostError& error) {
            EXPECT_NE("", error.hint());
            return error.description();
        }
        return "";
    }

    fakes::World world_;
    Home home_{.system = world_.system, .executor = world_.context.get_executor()};
};

TEST_F(DownloadsFolderTest, IsTheChosenOneOrTheUsersOwn) {
    EXPECT_EQ("/home/ann/Downloads", chooseDownloadsFolder(home_, "").path);
    EXPECT_FALSE(chooseDownloadsFolder(home_, "").isInPlaceOfHome);
    EXPECT_EQ("/srv/files", chooseDownloadsFolder(home_, "/srv/files").path);
}

TEST_F(DownloadsFolderTest, IsNeverTheHomeFolderByItself) {
    world_.files.putLink("/srv/ann", "/home/ann");
    for (const char* downloads : {"/home/ann", "/home/ann/", "/home/ann/.", "/srv/ann"}) {
        world_.system.directories.downloads = downloads;
        const DownloadsFolder folder = chooseDownloadsFolder(home_, "");
        EXPECT_EQ("/home/ann/Downloads", folder.path) << downloads;
        EXPECT_TRUE(folder.isInPlaceOfHome);
    }
    EXPECT_EQ("/home/ann", chooseDownloadsFolder(home_, "/home/ann").path) << "who asks for it gets to know why not";
}

TEST_F(DownloadsFolderTest, IsNoneInWhichProgramsLookForTheirFiles) {
    EXPECT_EQ("it is your home folder", objection("/home/ann"));
    EXPECT_EQ("your home folder is in it", objection("/home"));
    EXPECT_EQ("your home folder is in it", objection("/"));
    EXPECT_EQ("it is your folder for settings", objection("/home/ann/.config"));
    EXPECT_EQ("it is your folder for programs' data", objection("/home/ann/.local/share"));
    EXPECT_EQ("your folder for programs' data is in it", objection("/home/ann/.local"));
    EXPECT_EQ("Orlinth keeps its own files in /home/ann/.local/share/Orlinth",
              objection("/home/ann/.local/share/Orlinth/outbox"));
    EXPECT_EQ("Orlinth keeps its own files in /home/ann/.config/orlinth", objection("/home/ann/.config/orlinth"));
    EXPECT_EQ("Orlinth keeps its own files in /home/ann/.local/share/group.com.tarvinex.orlinth",
              objection("/home/ann/.local/share/group.com.tarvinex.orlinth/Outbox"));
}

TEST_F(DownloadsFolderTest, IsComparedAsAFolderAndNotOnlyByItsPath) {
    world_.files.putLink("/srv/link", "/home/ann/.config");
    world_.files.putLink("/srv/own", "/home/ann/.local/share/Orlinth");
    EXPECT_EQ("it is your folder for settings", objection("/srv/link"));
    EXPECT_EQ("it is your folder for settings", objection("/home/ann/Downloads/../.config/"));
    EXPECT_EQ("Orlinth keeps its own files in /home/ann/.local/share/Orlinth", objection("/srv/own/new"));
}

TEST_F(DownloadsFolderTest, CountsByWhatIsAboveAFolderAndNotAboveItsPath) {
    world_.files.putFolder("/srv/phone/settings");
    world_.files.putLink("/home/ann/settings", "/srv/phone/settings");
    world_.system.directories.config = "/home/ann/settings";
    EXPECT_EQ("your folder for settings is in it", objection("/srv/phone"));
}

TEST_F(DownloadsFolderTest, CountsByItsPathWhereAHomeDoesNotExist) {
    world_.system.directories.home = "/nowhere/bob";
    EXPECT_EQ("it is your home folder", objection("/nowhere/bob"));
    EXPECT_EQ("your home folder is in it", objection("/nowhere"));
}

TEST_F(DownloadsFolderTest, MayBeAnyOther) {
    for (const char* folder : {"/home/ann/Downloads", "/home/ann/Downloads/phone", "/home/ann/.config-of-old", "/srv",
                               "/srv/not/there/yet", "/home/annette"}) {
        EXPECT_EQ("", objection(folder)) << folder;
    }
}

TEST_F(DownloadsFolderTest, IsTriedByWritingAndLeftAsItWas) {
    EXPECT_EQ("", troubleWith("/home/ann/Downloads"));
    EXPECT_EQ("", troubleWith("/home/ann/Downloads/of/the/phone")) << "it can be made";
    EXPECT_FALSE(world_.files.exists("/home/ann/Downloads/of"));
    world_.files.putFolder("/srv/closed", 0500);
    EXPECT_EQ("cannot write to the folder for received files, /srv/closed: Permission denied",
              troubleWith("/srv/closed"));
    EXPECT_EQ("cannot write to the folder for received files, /srv/closed/new: Permission denied",
              troubleWith("/srv/closed/new"));
    world_.files.put("/srv/file", "");
    EXPECT_EQ("cannot write to the folder for received files, /srv/file: Not a directory", troubleWith("/srv/file"));
    world_.files.putLink("/srv/dangling", "/srv/nowhere");
    EXPECT_EQ("cannot write to the folder for received files, /srv/dangling: it is a link to /srv/nowhere, which does "
              "not exist",
              troubleWith("/srv/dangling"));
}

TEST_F(DownloadsFolderTest, MayBeOnAFullDisk) {
    world_.files.addFault({.operation = fakes::Operation::open, .errorNumber = ENOSPC, .nameEnding = ".tmp"});
    EXPECT_EQ("", troubleWith("/home/ann/Downloads"));
    world_.files.clearFaults();
    world_.files.addFault({.operation = fakes::Operation::open, .errorNumber = EROFS, .nameEnding = ".tmp"});
    EXPECT_EQ("cannot write to the folder for received files, /home/ann/Downloads: Read-only file system",
              troubleWith("/home/ann/Downloads"));
    world_.files.clearFaults();
}

} // namespace
} // namespace orlinth::host
