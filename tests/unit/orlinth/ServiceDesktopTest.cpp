#include "orlinth/Program/ServiceDesktop.h"

#include "fakes/TemporaryFolder.h"
#include "fakes/World.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace orlinth::cli {
namespace {

using fakes::TemporaryFolder;
using testing::ElementsAre;

/// While it lives, the program of the desktop that opens files writes down what it was asked to open.
class FakeOpener {
public:
    FakeOpener() {
        fakes::writeText(folder_ / "xdg-open", "#!/bin/sh\nprintf '%s|%s' \"$1\" \"$XDG_ACTIVATION_TOKEN\" >\"" +
                                                   log().string() + ".new\" && mv \"" + log().string() + ".new\" \"" +
                                                   log().string() + "\"\n");
        // the real one returns before xdg-open has done anything, so that a look would come too early
        fakes::writeText(folder_ / "setsid", "#!/bin/sh\nshift\nexec \"$@\"\n");
        for (const char* program : {"xdg-open", "setsid"}) {
            ::chmod((folder_ / program).c_str(), 0755);
        }
        ::setenv("PATH", (folder_.path().string() + ":" + before_).c_str(), 1);
    }
    ~FakeOpener() { ::setenv("PATH", before_.c_str(), 1); }
    FakeOpener(const FakeOpener&) = delete;
    FakeOpener& operator=(const FakeOpener&) = delete;

    /// What was opened, and with which token.
    [[nodiscard]] std::string opened() const { return fakes::readText(log()); }
    [[nodiscard]] bool hasOpened() const { return std::filesystem::exists(log()); }

private:
    [[nodiscard]] std::filesystem::path log() const { return folder_ / "opened"; }

    TemporaryFolder folder_;
    std::string before_ = std::getenv("PATH");
};

class ServiceDesktopTest : public testing::Test {
protected:
    ~ServiceDesktopTest() override { world_.run(desktop_.finish()); }

    void settle() { fakes::runUntilIdle(world_.context, world_.clock); }

    fakes::World world_;
    TaskRunner tasks_{world_.context};
    Output output_;
    Host host_{world_.system, tasks_, output_};
    ServiceDesktop desktop_{host_};
};

TEST_F(ServiceDesktopTest, WithoutAFileManagerOnTheBusTheFolderIsOpened) {
    const FakeOpener opener;
    desktop_.show({"/home/ann/Downloads/a b.txt", "/home/ann/Downloads/c.txt"}, "token-1");
    settle();
    EXPECT_EQ("/home/ann/Downloads|token-1", opener.opened());
}

TEST_F(ServiceDesktopTest, AFileIsOpenedByTheDesktopsOwnProgram) {
    const FakeOpener opener;
    world_.files.put("/home/ann/Downloads/a b.txt", "content");
    desktop_.open("/home/ann/Downloads/a b.txt", "");
    settle();
    EXPECT_EQ("/home/ann/Downloads/a b.txt|", opener.opened());
}

TEST_F(ServiceDesktopTest, WhatHasBecomeAProgramMeanwhileIsShownInstead) {
    const FakeOpener opener;
    world_.files.put("/home/ann/Downloads/a.txt", "#!/bin/sh\n");
    desktop_.open("/home/ann/Downloads/a.txt", "");
    settle();
    EXPECT_EQ("/home/ann/Downloads|", opener.opened());
}

TEST_F(ServiceDesktopTest, ALinkIsPassedOnAsItIs) {
    const FakeOpener opener;
    desktop_.openLink("https://example.org/$HOME?a=b", "token-1");
    settle();
    EXPECT_EQ("https://example.org/$HOME?a=b|token-1", opener.opened());
}

TEST_F(ServiceDesktopTest, ATextThatIsCopiedIsToldToBeThereOrNot) {
    std::vector<bool> results;
    const auto onDone = [&results](bool isThere) { results.push_back(isThere); };
    desktop_.copy("one", onDone);
    settle();
    EXPECT_EQ("one", world_.clipboard.text());
    world_.clipboard.hasSession = false;
    testing::internal::CaptureStderr();
    desktop_.copy("two", onDone);
    settle();
    testing::internal::GetCapturedStderr();
    EXPECT_THAT(results, ElementsAre(true, false));
    desktop_.copy("three", onDone); // replaced before its turn
    desktop_.copy("four", {});
    settle();
    EXPECT_THAT(results, ElementsAre(true, false));
}

TEST_F(ServiceDesktopTest, OnceItIsFinishedNothingIsDone) {
    const FakeOpener opener;
    world_.run(desktop_.finish());
    desktop_.show({"/home/ann/Downloads/a.txt"}, "");
    desktop_.openLink("https://example.org", "");
    desktop_.copy("correct horse", {});
    settle();
    EXPECT_FALSE(opener.hasOpened());
    EXPECT_EQ(0, world_.clipboard.textWrites);
}

} // namespace
} // namespace orlinth::cli
