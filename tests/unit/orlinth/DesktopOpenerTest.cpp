#include "orlinth/Program/DesktopOpener.h"

#include "fakes/RecordingLog.h"
#include "fakes/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace orlinth::cli {
namespace {

using testing::ElementsAre;

/// A service manager that does to the words of a command what systemd.service(5) says, and then starts it.
constexpr const char* serviceManager = R"script(#!/usr/bin/python3
import os, re, subprocess, sys
command = sys.argv[sys.argv.index("--") + 1:]
values = {"HOME": "/home/ann", "SECRET": "hunter2"}
def expanded(word):
    return re.sub(r"\$\$|\$\{(\w+)\}|\$(\w+)",
                  lambda m: "$" if m[0] == "$$" else values.get(m[1] or m[2], ""), word)
sys.exit(subprocess.run([expanded(word) for word in command]).returncode)
)script";

/// Programs of a desktop that write down what they are asked to open.
class DesktopOpenerTest : public testing::Test {
protected:
    DesktopOpenerTest() {
        program("systemd-run", serviceManager);
        program("xdg-open", "#!/bin/sh\nprintf '%s|' \"$#\" \"$@\" > '" + (folder_ / "opened").string() + "'\n");
        ::setenv("PATH", (folder_.path().string() + ":" + before_).c_str(), 1);
        ::setenv("INVOCATION_ID", "0123456789abcdef0123456789abcdef", 1);
    }
    ~DesktopOpenerTest() override {
        ::setenv("PATH", before_.c_str(), 1);
        ::unsetenv("INVOCATION_ID");
    }

    void program(const char* name, const std::string& text) {
        fakes::writeText(folder_ / name, text);
        std::filesystem::permissions(folder_ / name, std::filesystem::perms::owner_all);
    }

    [[nodiscard]] std::string opened(const platform::Path& path) {
        openOnDesktop(path, log_);
        EXPECT_TRUE(log_.messages().empty());
        return fakes::readText(folder_ / "opened");
    }

    fakes::TemporaryFolder folder_;
    fakes::RecordingLog log_;
    std::string before_ = std::getenv("PATH");
};

TEST_F(DesktopOpenerTest, OpensAFileOfAnyNameAndNoOther) {
    for (const char* name : {"$HOME.txt", "${SECRET}.pdf", "$$", "a $ b", "$", "100%n", "a\\$HOME"}) {
        const std::string path = std::string("/home/ann/Downloads/") + name;
        EXPECT_EQ("1|" + path + "|", opened(path)) << name;
    }
}

TEST_F(DesktopOpenerTest, NoNameIsAnOptionOrAnAddressOfTheWeb) {
    for (const char* name : {"--manual", "-", "https://example.com", "file:///etc/passwd"}) {
        for (const bool isManaged : {true, false}) {
            const platform::ChildProgram opener = openerFor(name, isManaged);
            EXPECT_EQ('/', opener.arguments.back().front()) << name;
            EXPECT_EQ("xdg-open", opener.arguments.at(opener.arguments.size() - 2));
        }
    }
}

TEST_F(DesktopOpenerTest, WithoutAServiceManagerThePathIsPassedAsItIs) {
    EXPECT_THAT(openerFor("/tmp/$HOME", false).arguments, ElementsAre("--fork", "xdg-open", "/tmp/$HOME"));
}

} // namespace
} // namespace orlinth::cli
