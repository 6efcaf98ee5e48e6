#include "platform/linux/ChildProcess.h"

#include "fakes/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orlinth::platform {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t enough = std::size_t{64} << 20;

/// Long for a slow machine, and far from what the child would take by itself.
constexpr auto longEnough = 60s;

ChildResult run(const std::string& name, std::vector<std::string> arguments, std::string_view input = "",
                std::size_t maxOutputBytes = enough) {
    return runChild({.name = name,
                     .package = "a-package",
                     .arguments = std::move(arguments),
                     .input = asBytes(input),
                     .maxOutputBytes = maxOutputBytes,
                     .deadline = longEnough});
}

ChildResult shell(const std::string& script, std::vector<std::string> arguments = {}) {
    std::vector<std::string> words = {"-c", script, "sh"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return run("sh", std::move(words));
}

TEST(ChildProcess, GivesBackWhatTheProgramPrints) {
    const ChildResult result = run("printf", {"%s|", "a b", "$HOME", "'\"", ""});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(toText(result.output), "a b|$HOME|'\"||");
    EXPECT_FALSE(result.isCut);
    EXPECT_EQ(result.complaint, "");
}

/// Sets a variable for as long as it lives.
class Setting {
public:
    Setting(const char* name, const char* value) : name_(name) { ::setenv(name, value, 1); }
    ~Setting() { ::unsetenv(name_); }
    Setting(const Setting&) = delete;
    Setting& operator=(const Setting&) = delete;

private:
    const char* name_;
};

TEST(ChildProcess, PassesOnWhatADesktopNeedsAndNothingElse) {
    const Setting display("WAYLAND_DISPLAY", "wayland-7");
    const Setting language("LC_TIME", "de_DE.UTF-8");
    const Setting notify("NOTIFY_SOCKET", "/run/notify");
    const Setting descriptors("LISTEN_FDS", "1");
    const Setting process("LISTEN_PID", "1");
    const Setting watchdog("WATCHDOG_USEC", "1000000");
    const Setting secret("API_TOKEN", "hunter2");
    const Setting library("LD_PRELOAD", "/nowhere.so");
    const ChildResult result = run("env", {});
    const std::string seen = "\n" + toText(result.output);
    EXPECT_NE(seen.find("\nWAYLAND_DISPLAY=wayland-7\n"), std::string::npos) << seen;
    EXPECT_NE(seen.find("\nLC_TIME=de_DE.UTF-8\n"), std::string::npos) << seen;
    EXPECT_NE(seen.find("\nPATH="), std::string::npos) << seen;
    EXPECT_NE(seen.find("\nHOME="), std::string::npos) << seen;
    for (const char* name : {"NOTIFY_SOCKET", "LISTEN_FDS", "LISTEN_PID", "WATCHDOG_USEC", "API_TOKEN", "LD_PRELOAD"}) {
        EXPECT_EQ(seen.find(std::string("\n") + name + "="), std::string::npos) << name;
    }
}

TEST(ChildProcess, AddsToTheEnvironmentWhatItIsGiven) {
    const Setting before("TMPDIR", "/elsewhere");
    const ChildResult result = runChild({.name = "sh",
                                         .package = "a-package",
                                         .arguments = {"-c", "printf '%s|%s' \"$TMPDIR\" \"$MORE\""},
                                         .input = {},
                                         .maxOutputBytes = enough,
                                         .deadline = longEnough,
                                         .environment = {{"TMPDIR", "/run/user/7"}, {"MORE", "a=b"}}});
    EXPECT_EQ(toText(result.output), "/run/user/7|a=b");
}

TEST(ChildProcess, AnEmptyEnvironmentIsOne) {
    EXPECT_TRUE(childEnvironment(nullptr).empty());
    const char* const odd[] = {"PATH", "HOME=", "LC_ALL=C=D", "=", nullptr};
    EXPECT_EQ(childEnvironment(odd), (std::vector<std::string>{"PATH", "HOME=", "LC_ALL=C=D"}));
}

TEST(ChildProcess, PassesMegabytesInAndOut) {
    std::string big(std::size_t{5} << 20, '\0');
    for (std::size_t i = 0; i < big.size(); ++i) {
        big[i] = static_cast<char>(i * 31 % 251);
    }
    const ChildResult result = run("cat", {}, big);
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(toText(result.output) == big);
}

TEST(ChildProcess, DoesNotMindAProgramThatLeavesItsInputUnread) {
    EXPECT_EQ(run("true", {}, std::string(std::size_t{1} << 20, 'x')).status, 0);
}

TEST(ChildProcess, TellsStatusAndComplaint) {
    const ChildResult result = shell("printf 'one\\ntwo\\n\\n' >&2; echo out; exit 7");
    EXPECT_EQ(result.status, 7);
    EXPECT_EQ(result.complaint, "one\ntwo");
    EXPECT_EQ(toText(result.output), "out\n");
}

TEST(ChildProcess, TellsWhichSignalEndedIt) {
    EXPECT_EQ(shell("kill -KILL $$").status, 128 + SIGKILL);
}

TEST(ChildProcess, KeepsOnlyTheBeginningOfALongComplaint) {
    const ChildResult result = shell("head -c 1000000 /dev/zero | tr '\\0' x >&2; echo done");
    EXPECT_EQ(result.complaint, std::string(4096, 'x'));
    EXPECT_EQ(toText(result.output), "done\n");
}

TEST(ChildProcess, CutsWhatIsTooLongAndEndsTheProgram) {
    const ChildResult result = run("yes", {}, "", 100'000);
    EXPECT_TRUE(result.isCut);
    EXPECT_EQ(result.output.size(), 100'000U);
    EXPECT_EQ(toText(result.output).substr(0, 4), "y\ny\n");
}

TEST(ChildProcess, DoesNotCutWhatJustFits) {
    const ChildResult result = run("cat", {}, std::string(100'000, 'x'), 100'000);
    EXPECT_FALSE(result.isCut);
    EXPECT_EQ(result.output.size(), 100'000U);
}

TEST(ChildProcess, SaysWhichPackageAMissingProgramIsIn) {
    const std::string before = std::getenv("PATH");
    ::setenv("PATH", "/usr/bin:/bin", 1); // of a folder that one may not look into, the system says something else
    try {
        static_cast<void>(run("orlinth-no-such-program", {}));
        FAIL() << "nothing was thrown";
    } catch (const ProgramUnavailable& error) {
        EXPECT_EQ(error.description(), "orlinth-no-such-program is not installed (package a-package)");
    }
    ::setenv("PATH", before.c_str(), 1);
}

TEST(ChildProcess, SaysWhyAProgramCannotBeRun) {
    const fakes::TemporaryFolder folder;
    const std::string path = folder / "program";
    fakes::writeText(path, "#!/bin/sh\n");
    try {
        static_cast<void>(run(path, {}));
        FAIL() << "nothing was thrown";
    } catch (const ProgramUnavailable& error) {
        EXPECT_EQ(error.description(), "cannot run " + path + ": Permission denied");
    }
}

/// Tells when the last process that has opened it for writing is gone.
class LifeLine {
public:
    LifeLine() {
        EXPECT_EQ(::mkfifo(path().c_str(), 0600), 0);
        reader_ = ::open(path().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    }
    LifeLine(const LifeLine&) = delete;
    LifeLine& operator=(const LifeLine&) = delete;
    ~LifeLine() { ::close(reader_); }

    [[nodiscard]] std::string path() const { return folder_ / "line"; }
    /// Whether somebody has written a byte to it, and then all have gone.
    [[nodiscard]] bool wasHeldAndIsFree() const {
        std::array<char, 16> bytes{};
        if (::read(reader_, bytes.data(), bytes.size()) <= 0) {
            return false;
        }
        pollfd watched{reader_, POLLIN, 0};
        return ::poll(&watched, 1, 60'000) == 1 && ::read(reader_, bytes.data(), bytes.size()) == 0;
    }

private:
    fakes::TemporaryFolder folder_;
    int reader_ = -1;
};

TEST(ChildProcess, KillsAtTheDeadlineWithAllThatTheProgramHasStarted) {
    const LifeLine line;
    const auto start = std::chrono::steady_clock::now();
    try {
        static_cast<void>(
            runChild({.name = "sh",
                      .package = "dash",
                      .arguments = {"-c", "exec 9>\"$1\"; echo >&9; sleep 1000 & sleep 1000", "sh", line.path()},
                      .input = {},
                      .maxOutputBytes = enough,
                      .deadline = 500ms}));
        FAIL() << "nothing was thrown";
    } catch (const SystemError& error) {
        EXPECT_EQ(error.description(), "sh does not answer");
    }
    EXPECT_GE(std::chrono::steady_clock::now() - start, 500ms);
    EXPECT_TRUE(line.wasHeldAndIsFree());
}

TEST(ChildProcess, HasADeadlineOfTwoSeconds) {
    EXPECT_EQ(ChildProgram().deadline, 2s);
}

TEST(ChildProcess, DoesNotWaitForWhatStaysInTheBackgroundWhenTheOutputIsNotWanted) {
    const fakes::TemporaryFolder folder;
    const std::string note = folder / "pid";
    const ChildResult result =
        run("sh", {"-c", "sleep 1000 & echo $! > \"$1\"; echo said >&2; echo lost", "sh", note}, "", 0);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.complaint, "said");
    EXPECT_TRUE(result.output.empty());
    const pid_t background = std::stoi(fakes::readText(note));
    EXPECT_EQ(::kill(background, SIGTERM), 0) << "it should be left alone";
}

TEST(ChildProcess, StartsProgramsWithNoSignalBlockedOrIgnored) {
    sigset_t blocked;
    sigset_t before;
    ::sigemptyset(&blocked);
    ::sigaddset(&blocked, SIGINT);
    ::sigaddset(&blocked, SIGTERM);
    ::sigprocmask(SIG_BLOCK, &blocked, &before);
    const auto pipeBefore = std::signal(SIGPIPE, SIG_IGN);
    const auto hangupBefore = std::signal(SIGHUP, SIG_IGN);
    const ChildResult result = run("grep", {"-E", "^Sig(Blk|Ign):", "/proc/self/status"});
    std::signal(SIGHUP, hangupBefore);
    std::signal(SIGPIPE, pipeBefore);
    ::sigprocmask(SIG_SETMASK, &before, nullptr);
    const std::string lines = toText(result.output);
    // the C library's own two signals (32 and 33) may be ignored
    EXPECT_TRUE(lines == "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n" ||
                lines == "SigBlk:\t0000000000000000\nSigIgn:\t0000000180000000\n")
        << lines;
}

TEST(ChildProcess, StartsProgramsInASessionOfTheirOwn) {
    const ChildResult result = shell("cut -d' ' -f6 /proc/$$/stat; echo $$");
    const std::string lines = toText(result.output);
    const std::size_t middle = lines.size() / 2;
    EXPECT_EQ(lines.substr(0, middle), lines.substr(middle));
    EXPECT_NE(lines, "");
}

TEST(ChildProcess, PassesNoDescriptorOn) {
    const int open = ::fcntl(STDERR_FILENO, F_DUPFD, 100); // as a library does that does not know close-on-exec
    ASSERT_GE(open, 100);
    const ChildResult result = shell("ls /proc/$$/fd");
    ::close(open);
    EXPECT_EQ(toText(result.output), "0\n1\n2\n");
}

TEST(ChildProcess, LeavesNoDescriptorBehind) {
    const auto openNow = [] {
        const std::filesystem::directory_iterator files("/proc/self/fd");
        return std::distance(begin(files), end(files));
    };
    const auto before = openNow();
    static_cast<void>(run("cat", {}, "x"));
    static_cast<void>(run("yes", {}, "", 10));
    EXPECT_THROW(static_cast<void>(run("orlinth-no-such-program", {})), ProgramUnavailable);
    EXPECT_EQ(openNow(), before);
}

TEST(ChildProcess, WorksForAProgramWhoseOwnStreamsAreClosed) {
    std::array<int, 3> saved{};
    for (int stream = 0; stream < 3; ++stream) {
        saved.at(static_cast<std::size_t>(stream)) = ::fcntl(stream, F_DUPFD_CLOEXEC, 100);
        ::close(stream);
    }
    const ChildResult result = run("sh", {"-c", "cat; echo said >&2"}, "through");
    for (int stream = 0; stream < 3; ++stream) {
        const int number = saved.at(static_cast<std::size_t>(stream));
        ::dup2(number, stream);
        ::close(number);
    }
    EXPECT_EQ(toText(result.output), "through");
    EXPECT_EQ(result.complaint, "said");
}

} // namespace
} // namespace orlinth::platform
