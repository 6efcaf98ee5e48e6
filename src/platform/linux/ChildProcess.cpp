#include "platform/linux/ChildProcess.h"

#include "platform/linux/Descriptor.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace orlinth::platform {
namespace {

using detail::checked;
using detail::Descriptor;

constexpr std::size_t maxComplaintBytes = 4096;
constexpr int firstFreeDescriptor = 3;

/// For the calls that return their error instead of setting errno.
void require(int error) {
    if (error != 0) {
        throw SystemError::fromErrno(error);
    }
}

constexpr auto passedOn = std::to_array<std::string_view>(
    {// programs, people, and where their things are
     "PATH", "HOME", "USER", "LOGNAME", "SHELL", "TMPDIR", "TZ", "LANG", "LANGUAGE",
     // the display and the session
     "DISPLAY", "XAUTHORITY", "WAYLAND_DISPLAY", "DBUS_SESSION_BUS_ADDRESS", "XDG_RUNTIME_DIR", "XDG_SESSION_ID",
     "XDG_SESSION_TYPE", "XDG_SESSION_CLASS", "XDG_SESSION_DESKTOP", "XDG_CURRENT_DESKTOP", "XDG_SEAT", "XDG_VTNR",
     "DESKTOP_SESSION", "XDG_MENU_PREFIX", "KDE_FULL_SESSION", "KDE_SESSION_VERSION", "KDE_SESSION_UID",
     "GNOME_DESKTOP_SESSION_ID", "XDG_DATA_DIRS", "XDG_CONFIG_DIRS", "XDG_DATA_HOME", "XDG_CONFIG_HOME",
     "XDG_CACHE_HOME", "XDG_STATE_HOME", "BROWSER",
     // how programs of the desktop look, and how text gets into them
     "QT_QPA_PLATFORM", "QT_QPA_PLATFORMTHEME", "QT_STYLE_OVERRIDE", "QT_IM_MODULE", "QT_SCALE_FACTOR", "GDK_BACKEND",
     "GDK_SCALE", "GTK_THEME", "GTK_IM_MODULE", "XMODIFIERS", "XCURSOR_THEME"});

bool isPassedOn(std::string_view name) {
    return name.starts_with("LC_") || std::ranges::find(passedOn, name) != passedOn.end();
}

std::string_view nameIn(std::string_view entry) {
    return entry.substr(0, entry.find('='));
}

/// The same file under a number that none of the child's three streams has, even if ours are closed.
Descriptor aboveTheStreams(Descriptor file) {
    if (file.get() >= firstFreeDescriptor) {
        return file;
    }
    return Descriptor::require(::fcntl(file.get(), F_DUPFD_CLOEXEC, firstFreeDescriptor));
}

/// A file without a name that holds these bytes. As the child's input it needs nobody who writes, and no SIGPIPE.
Descriptor inputFile(ByteView bytes) {
    Descriptor file = aboveTheStreams(Descriptor::require(::memfd_create("input", MFD_CLOEXEC)));
    ByteView rest = bytes;
    while (!rest.empty()) {
        const ssize_t written = ::write(file.get(), rest.data(), rest.size());
        if (written == -1 && errno == EINTR) {
            continue;
        }
        if (written == -1) {
            throw SystemError::fromErrno();
        }
        rest = rest.subspan(static_cast<std::size_t>(written));
    }
    checked([&] { return ::lseek(file.get(), 0, SEEK_SET); });
    return file;
}

/// Takes what the child complains of. A file, not a pipe: a process that stays behind in the background may keep it
/// for ever without being killed by its next line. It cannot grow.
Descriptor complaintFile() {
    Descriptor file =
        aboveTheStreams(Descriptor::require(::memfd_create("complaint", MFD_CLOEXEC | MFD_ALLOW_SEALING)));
    checked([&] { return ::ftruncate(file.get(), maxComplaintBytes); });
    checked([&] { return ::fcntl(file.get(), F_ADD_SEALS, F_SEAL_GROW | F_SEAL_SHRINK | F_SEAL_SEAL); });
    return file;
}

std::string readComplaint(const Descriptor& file) {
    std::string text(maxComplaintBytes, '\0');
    const ssize_t count = ::pread(file.get(), text.data(), text.size(), 0);
    text.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    text.erase(text.find_last_not_of(std::string_view("\0 \t\r\n", 5)) + 1); // the file was zeros before
    return text;
}

/// What happens between fork and exec.
class SpawnPlan {
public:
    SpawnPlan() {
        require(::posix_spawn_file_actions_init(&actions_));
        if (const int error = ::posix_spawnattr_init(&attributes_); error != 0) {
            ::posix_spawn_file_actions_destroy(&actions_);
            throw SystemError::fromErrno(error);
        }
    }
    SpawnPlan(const SpawnPlan&) = delete;
    SpawnPlan& operator=(const SpawnPlan&) = delete;
    ~SpawnPlan() {
        ::posix_spawn_file_actions_destroy(&actions_);
        ::posix_spawnattr_destroy(&attributes_);
    }

    void beginsAfresh() {
        sigset_t none;
        sigset_t all;
        ::sigemptyset(&none);
        ::sigfillset(&all);
        require(::posix_spawnattr_setsigmask(&attributes_, &none));
        require(::posix_spawnattr_setsigdefault(&attributes_, &all));
        require(::posix_spawnattr_setflags(&attributes_,
                                           POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSID));
    }
    void stream(int number, const Descriptor& file) {
        require(::posix_spawn_file_actions_adddup2(&actions_, file.get(), number));
    }
    void discarded(int number) {
        require(::posix_spawn_file_actions_addopen(&actions_, number, "/dev/null", O_WRONLY, 0));
    }
    /// Sockets of libraries are not all close-on-exec, and a program in the background would hold them open.
    void nothingElse() { require(::posix_spawn_file_actions_addclosefrom_np(&actions_, firstFreeDescriptor)); }

    [[nodiscard]] pid_t start(const ChildProgram& program) const {
        std::vector<char*> words;
        words.push_back(const_cast<char*>(program.name.c_str()));
        for (const std::string& argument : program.arguments) {
            words.push_back(const_cast<char*>(argument.c_str()));
        }
        words.push_back(nullptr);
        std::vector<std::string> environment = childEnvironment(::environ);
        for (const auto& [name, value] : program.environment) {
            std::erase_if(environment, [&name](const std::string& entry) { return nameIn(entry) == name; });
            environment.push_back(name + "=" + value);
        }
        std::vector<char*> entries;
        for (std::string& entry : environment) {
            entries.push_back(entry.data());
        }
        entries.push_back(nullptr);
        pid_t child = 0;
        const int error =
            ::posix_spawnp(&child, program.name.c_str(), &actions_, &attributes_, words.data(), entries.data());
        if (error == ENOENT) {
            throw ProgramUnavailable(program.name + " is not installed (package " + program.package + ")");
        }
        if (error != 0) {
            throw ProgramUnavailable("cannot run " + program.name + ": " + SystemError::fromErrno(error).description());
        }
        return child;
    }

private:
    posix_spawn_file_actions_t actions_{};
    posix_spawnattr_t attributes_{};
};

/// A child that runs. Destroyed before it has ended, it is killed with all that it has started.
class Child {
public:
    explicit Child(pid_t id) noexcept : id_(id) {}
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child() {
        if (id_ != 0) {
            ::kill(-id_, SIGKILL); // its session's group; the number stays taken until it is reaped
            static_cast<void>(reap());
        }
    }

    [[nodiscard]] pid_t id() const noexcept { return id_; }

    /// Waits for its end; returns the exit status, or 128 and the signal.
    [[nodiscard]] int reap() noexcept {
        int status = 0;
        pid_t found = 0;
        do {
            found = ::waitpid(id_, &status, 0);
        } while (found == -1 && errno == EINTR);
        id_ = 0;
        if (found == -1) {
            return 128; // somebody else has reaped it: how it ended is not known, so not well
        }
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    pid_t id_;
};

using Clock = std::chrono::steady_clock;

/// Waits until one of them has something to say. @throws SystemError at the deadline
void awaitEither(std::array<pollfd, 2>& watched, Clock::time_point deadline, const std::string& name) {
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        const int ready = left > 0 ? ::poll(watched.data(), watched.size(), static_cast<int>(left)) : 0;
        if (ready > 0) {
            return;
        }
        if (ready == 0) {
            throw SystemError(name + " does not answer");
        }
        if (errno != EINTR) {
            throw SystemError::fromErrno();
        }
    }
}

/// A descriptor that becomes readable when the child ends. The C library's own function lacks C linkage in Debian 12.
Descriptor endOf(pid_t child) {
    return Descriptor::require(static_cast<int>(::syscall(SYS_pidfd_open, child, 0)));
}

/// Reads one piece; false at the end.
bool readPiece(const Descriptor& pipe, Bytes& output) {
    std::array<std::byte, 65536> piece; // NOLINT(cppcoreguidelines-pro-type-member-init): read() fills it
    const ssize_t count = ::read(pipe.get(), piece.data(), piece.size());
    if (count == -1) {
        if (errno == EINTR || errno == EAGAIN) {
            return true;
        }
        throw SystemError::fromErrno();
    }
    output.insert(output.end(), piece.begin(), piece.begin() + count);
    return count > 0;
}

} // namespace

std::vector<std::string> childEnvironment(const char* const* ours) {
    std::vector<std::string> passed;
    for (; ours != nullptr && *ours != nullptr; ++ours) {
        if (isPassedOn(nameIn(*ours))) {
            passed.emplace_back(*ours);
        }
    }
    return passed;
}

ChildResult runChild(const ChildProgram& program) {
    const auto deadline = Clock::now() + program.deadline;
    const Descriptor input = inputFile(program.input);
    const Descriptor complaint = complaintFile();
    Descriptor output;
    Descriptor outputOfChild;
    SpawnPlan plan;
    plan.beginsAfresh();
    plan.stream(STDIN_FILENO, input);
    plan.stream(STDERR_FILENO, complaint);
    if (program.maxOutputBytes > 0) {
        std::array<int, 2> ends{};
        checked([&] { return ::pipe2(ends.data(), O_CLOEXEC); });
        output = Descriptor(ends[0]);
        outputOfChild = aboveTheStreams(Descriptor(ends[1]));
        plan.stream(STDOUT_FILENO, outputOfChild);
    } else {
        plan.discarded(STDOUT_FILENO);
    }
    plan.nothingElse();

    Child child(plan.start(program));
    outputOfChild.close();
    const Descriptor end = endOf(child.id());
    ChildResult result;
    // poll() looks over a descriptor of -1
    std::array<pollfd, 2> watched{{{output.get(), POLLIN, 0}, {end.get(), POLLIN, 0}}};
    while (watched[0].fd != -1 || watched[1].fd != -1) {
        awaitEither(watched, deadline, program.name);
        if (watched[0].fd != -1 && watched[0].revents != 0 && !readPiece(output, result.output)) {
            watched[0].fd = -1;
        }
        if (result.output.size() > program.maxOutputBytes) {
            result.output.resize(program.maxOutputBytes);
            result.isCut = true;
            return result; // and the child is killed
        }
        if (watched[1].fd != -1 && watched[1].revents != 0) {
            watched[1].fd = -1;
        }
    }
    result.status = child.reap();
    result.complaint = readComplaint(complaint);
    return result;
}

} // namespace orlinth::platform
