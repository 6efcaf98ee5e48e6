#include "OrlinthShare/ShareRequest.h"

#include "OrlinthShare/ComputerName.h"
#include "fakes/MemoryFileSystem.h"

#include <gmock/gmock.h>

namespace orlinth::share {
namespace {

using platform::Path;
using testing::ElementsAre;
using testing::IsEmpty;

std::vector<Path> filesOf(std::vector<std::string> items, const platform::FileSystem& files) {
    return ShareRequest(std::move(items), "/home/ann").fileItems(files).paths;
}

TEST(FileUri, IsDecoded) {
    EXPECT_EQ(pathOfFileUri("file:///home/ann/a.txt"), "/home/ann/a.txt");
    EXPECT_EQ(pathOfFileUri("file://localhost/a"), "/a");
    EXPECT_EQ(pathOfFileUri("file://LocalHost/a"), "/a");
    EXPECT_EQ(pathOfFileUri("FILE:///a"), "/a");
    EXPECT_EQ(pathOfFileUri("file:/a"), "/a");
    EXPECT_EQ(pathOfFileUri("file:///a%20b%C3%A4%0A%25.txt"), "/a bä\n%.txt");
    EXPECT_EQ(pathOfFileUri("file:///a%fF"), "/a\xff");
    EXPECT_EQ(pathOfFileUri("file:///a+b#c?d"), "/a+b#c?d");
}

TEST(FileUri, IsRefusedWhereItNamesNoFileOfThisComputer) {
    for (const char* const uri : {"file://elsewhere/a", "file://", "file://localhost", "file:a", "file:", "http:///a",
                                  "file:///a%", "file:///a%2", "file:///a%zz", "file:///a%2gb", "file:///a%00b",
                                  "file:///..%2fetc", "/a", "", "file%3A///a", "afile:///a"}) {
        EXPECT_EQ(pathOfFileUri(uri), std::nullopt) << uri;
    }
}

TEST(ShareRequest, KeepsTheFilesInOrderAndLeavesOutTheRest) {
    fakes::MemoryFileSystem files;
    files.put("/home/ann/b.txt", "");
    files.put("/home/ann/notes:today", "");
    EXPECT_THAT(filesOf({"/tmp/a", "https://example.com/x", "b.txt", "file:///c%20d", "just a text", "", "mailto:ann@x",
                         "notes:today", "file://elsewhere/e", "content://f"},
                        files),
                ElementsAre("/tmp/a", "/home/ann/b.txt", "/c d", "/home/ann/notes:today"));
}

TEST(ShareRequest, CountsTheUrisThatNameNoFileHere) {
    const fakes::MemoryFileSystem files;
    const ShareRequest request({"file://elsewhere/a", "/b", "https://example.com/", "file:///%zz", "text"}, "/");
    EXPECT_EQ(request.fileItems(files).unreadable, 2);
    EXPECT_THAT(request.fileItems(files).paths, ElementsAre("/b"));
}

TEST(ShareRequest, HasNoFilesWhereOnlyTextIsShared) {
    const fakes::MemoryFileSystem files;
    EXPECT_THAT(filesOf({"just a text", "two\nlines", "https://example.com/"}, files), IsEmpty());
    EXPECT_THAT(filesOf({}, files), IsEmpty());
}

TEST(ShareRequest, EndsOnceWithAStatusForTheProgram) {
    ShareRequest completed({}, "/");
    EXPECT_FALSE(completed.hasEnded());
    EXPECT_EQ(completed.exitStatus(), 1);
    int ends = 0;
    completed.onEnd = [&ends] { ++ends; };
    completed.completeRequest();
    EXPECT_TRUE(completed.hasEnded());
    EXPECT_EQ(completed.exitStatus(), 0);
    EXPECT_EQ(ends, 1);

    ShareRequest cancelled({}, "/");
    cancelled.cancelRequest({ShareRequest::ErrorCode::cancelled, "cancelled"});
    EXPECT_EQ(cancelled.exitStatus(), 1);
    EXPECT_EQ(static_cast<int>(cancelled.error()->code), 2);
    EXPECT_EQ(cancelled.error()->description, "cancelled");
    EXPECT_STREQ(ShareRequest::errorDomain, "com.tarvinex.orlinth.share");
}

TEST(ShareRequestDeathTest, RefusesToEndTwice) {
    ShareRequest request({}, "/");
    request.completeRequest();
    EXPECT_DEATH(request.cancelRequest({}), "ends once");
}

TEST(ComputerName, IsTheOneThatItsUserGaveIt) {
    EXPECT_EQ(prettyHostname("CHASSIS=laptop\nPRETTY_HOSTNAME=\"Ann's \\\"best\\\" laptop\"\n"),
              "Ann's \"best\" laptop");
    EXPECT_EQ(prettyHostname("PRETTY_HOSTNAME=Lenas\\ Rechner"), "Lenas Rechner");
    EXPECT_EQ(prettyHostname("PRETTY_HOSTNAME='a\\b'"), "a\\b");
    EXPECT_EQ(prettyHostname("#PRETTY_HOSTNAME=x\nICON_NAME=y"), "");
    EXPECT_EQ(prettyHostname(""), "");

    fakes::MemoryFileSystem files;
    const QString kernels = computerName(files);
    EXPECT_FALSE(kernels.isEmpty());
    files.put("/etc/machine-info", "PRETTY_HOSTNAME=\"Küche\"\n");
    EXPECT_EQ(computerName(files).toStdString(), "Küche");
    files.put("/etc/machine-info", "PRETTY_HOSTNAME=\n");
    EXPECT_EQ(computerName(files), kernels);
}

} // namespace
} // namespace orlinth::share
