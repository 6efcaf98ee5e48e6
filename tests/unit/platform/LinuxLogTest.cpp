#include "platform/linux/LinuxLog.h"

#include "base/Text.h"

#include <gmock/gmock.h>

#include <array>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace orlinth::platform {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;

TEST(LinuxLog, FillsTheJournalsFields) {
    EXPECT_THAT(journalFields(LogLevel::warning, "com.example", "sending", "two\nlines"),
                ElementsAre("MESSAGE=two\\u{000A}lines", "PRIORITY=4", "SYSLOG_IDENTIFIER=orlinth",
                            "ORLINTH_SUBSYSTEM=com.example", "ORLINTH_CATEGORY=sending"));
    const auto priorityOf = [](LogLevel level) { return journalFields(level, "", "", "").at(1); };
    EXPECT_EQ(priorityOf(LogLevel::debug), "PRIORITY=7");
    EXPECT_EQ(priorityOf(LogLevel::info), "PRIORITY=6");
    EXPECT_EQ(priorityOf(LogLevel::notice), "PRIORITY=5");
    EXPECT_EQ(priorityOf(LogLevel::error), "PRIORITY=3");
}

TEST(LinuxLog, ShortensLongMessagesInTheMiddle) {
    const std::string exact(maxLineColumns, 'a');
    EXPECT_EQ(journalFields(LogLevel::info, "", "", exact).at(0), "MESSAGE=" + exact);
    for (const std::string& message : {exact + ": it broke", std::string(std::size_t{45} << 20, 'x') + ": it broke"}) {
        for (const std::string& line :
             {journalFields(LogLevel::info, "", "", message).at(0), syslogLine("a", "b", message)}) {
            EXPECT_LE(columnsOf(line), maxLineColumns + 10);
            EXPECT_THAT(line, EndsWith(": it broke"));
        }
    }
}

TEST(LinuxLog, WritesOneLineForSyslog) {
    EXPECT_EQ(syslogLine("com.example", "sending", "a\nb\x1B\x7F\u20AC"),
              "com.example sending: a\\u{000A}b\\u{001B}\\u{007F}\u20AC");
}

int bindDatagrams(const char* path) {
    const int number = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string(path).copy(std::begin(address.sun_path), sizeof address.sun_path - 1);
    return ::bind(number, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? number : -1;
}

/// Moves this process into a user namespace of its own, as its root, and into other new namespaces.
bool becomeRootOfANamespace(int others) {
    const std::string user = "0 " + std::to_string(::geteuid()) + " 1\n";
    const std::string group = "0 " + std::to_string(::getegid()) + " 1\n";
    if (::unshare(CLONE_NEWUSER | others) != 0) {
        return false;
    }
    std::ofstream("/proc/self/setgroups") << "deny\n";
    std::ofstream("/proc/self/gid_map") << group;
    std::ofstream("/proc/self/uid_map") << user;
    return ::geteuid() == 0;
}

/// What one log line sends, in a process for which /run and /dev are empty but for the receiving socket at `path`: this
/// machine's own journal and syslog are not there. Nothing where the system lets nobody see folders of their own.
std::optional<std::string> sentTo(const char* path, const std::function<void()>& log) {
    std::array<int, 2> pipe{};
    EXPECT_EQ(::pipe2(pipe.data(), O_CLOEXEC), 0);
    const pid_t process = ::fork();
    if (process == 0) {
        if (::unshare(CLONE_NEWNS) != 0 && !becomeRootOfANamespace(CLONE_NEWNS)) {
            ::_exit(77);
        }
        if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount("none", "/run", "tmpfs", 0, nullptr) != 0 || ::mount("none", "/dev", "tmpfs", 0, nullptr) != 0) {
            ::_exit(77);
        }
        ::mkdir("/run/systemd", 0755);
        ::mkdir("/run/systemd/journal", 0755);
        const int receiver = bindDatagrams(path);
        log();
        std::array<char, 10000> message{};
        const ssize_t size = ::recv(receiver, message.data(), message.size(), MSG_DONTWAIT);
        ::_exit(size > 0 && ::write(pipe[1], message.data(), static_cast<std::size_t>(size)) == size ? 0 : 1);
    }
    ::close(pipe[1]);
    std::string sent;
    std::array<char, 10000> buffer{};
    for (ssize_t size = 0; (size = ::read(pipe[0], buffer.data(), buffer.size())) > 0;) {
        sent.append(buffer.data(), static_cast<std::size_t>(size));
    }
    ::close(pipe[0]);
    int status = 0;
    ::waitpid(process, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 77 ? std::nullopt : std::optional(sent);
}

TEST(LinuxLog, ReachesTheJournalWhereThereIsOne) {
    const std::optional<std::string> sent = sentTo(
        "/run/systemd/journal/socket", [] { LinuxLog().write(LogLevel::error, "com.example", "sending", "it broke"); });
    if (!sent) {
        GTEST_SKIP() << "this system does not allow a mount namespace, in which the journal is played";
    }
    EXPECT_THAT(*sent, AllOf(HasSubstr("MESSAGE=it broke\n"), HasSubstr("PRIORITY=3\n"),
                             HasSubstr("SYSLOG_IDENTIFIER=orlinth\n"), HasSubstr("ORLINTH_SUBSYSTEM=com.example\n"),
                             HasSubstr("ORLINTH_CATEGORY=sending\n")));
    EXPECT_THAT(*sent, testing::Not(HasSubstr("CODE_FILE")));
}

TEST(LinuxLog, ReachesSyslogWhereThereIsNoJournal) {
    const std::optional<std::string> sent =
        sentTo("/dev/log", [] { LinuxLog().write(LogLevel::notice, "com.example", "sending", "100 %s done"); });
    if (!sent) {
        GTEST_SKIP() << "this system does not allow a mount namespace, in which syslog is played";
    }
    // facility user (1) times 8 plus notice (5)
    EXPECT_THAT(*sent, AllOf(testing::StartsWith("<13>"), EndsWith(": orlinth: com.example sending: 100 %s done")));
}

TEST(LinuxLog, IsSilentWhereNobodyListens) {
    LinuxLog().write(LogLevel::info, "", "", std::string(1 << 20, 'x'));
}

} // namespace
} // namespace orlinth::platform
