// A stand-in for the user's service manager (systemd --user) on the session's bus: it has one unit, of Type=notify,
// which is started anew when it ends with 75.
//
//     user_manager UNIT PROGRAM [ARGUMENT...]
//
// It says "ready" once others can ask it, then a line for what it is asked and for what becomes of the unit:
//
//     EnableUnitFiles UNIT    Reload    StartUnit UNIT    started    exited STATUS
//
// It stays until SIGTERM, which also ends the unit.

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr const char* object = "/org/freedesktop/systemd1";
constexpr const char* interface = "org.freedesktop.systemd1.Manager";
constexpr const char* noSuchUnit = "org.freedesktop.systemd1.NoSuchUnit";
constexpr int restartStatus = 75;

void require(int result) {
    if (result < 0) {
        throw std::runtime_error(std::strerror(-result));
    }
}

void say(const std::string& line) {
    std::puts(line.c_str());
    std::fflush(stdout);
}

class Manager {
public:
    Manager(const char* unit, char** command) : unit_(unit), command_(command) {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGTERM);
        sigaddset(&signals, SIGCHLD);
        sigprocmask(SIG_BLOCK, &signals, nullptr);
        require(sd_event_new(&event_));
        require(sd_event_add_signal(event_, nullptr, SIGTERM, onTerm, this));
        listenForNotifications();
        static const sd_bus_vtable table[] = {
            SD_BUS_VTABLE_START(0),
            SD_BUS_METHOD("EnableUnitFiles", "asbb", "ba(sss)", onEnable, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_METHOD("Reload", "", "", onReload, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_METHOD("Subscribe", "", "", onSubscribe, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_METHOD("StartUnit", "ss", "o", onStart, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_SIGNAL("JobRemoved", "uoss", 0),
            SD_BUS_VTABLE_END};
        require(sd_bus_open_user(&bus_));
        require(sd_bus_attach_event(bus_, event_, SD_EVENT_PRIORITY_NORMAL));
        require(sd_bus_add_object_vtable(bus_, nullptr, object, interface, table, this));
        require(sd_bus_request_name(bus_, "org.freedesktop.systemd1", 0));
    }
    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;

    void run() {
        say("ready");
        require(sd_event_loop(event_));
    }

private:
    static int onEnable(sd_bus_message* message, void* data, sd_bus_error* error) {
        auto& self = *static_cast<Manager*>(data);
        require(sd_bus_message_enter_container(message, 'a', "s"));
        const char* unit = nullptr;
        require(sd_bus_message_read(message, "s", &unit));
        say(std::string("EnableUnitFiles ") + unit);
        if (self.unit_ != unit) {
            return sd_bus_error_setf(error, noSuchUnit, "Unit file %s does not exist.", unit);
        }
        return sd_bus_reply_method_return(message, "ba(sss)", 1, 0);
    }
    static int onReload(sd_bus_message* message, void* /*data*/, sd_bus_error* /*error*/) {
        say("Reload");
        return sd_bus_reply_method_return(message, "");
    }
    static int onSubscribe(sd_bus_message* message, void* data, sd_bus_error* /*error*/) {
        static_cast<Manager*>(data)->isSubscribed_ = true;
        return sd_bus_reply_method_return(message, "");
    }
    static int onStart(sd_bus_message* message, void* data, sd_bus_error* error) {
        auto& self = *static_cast<Manager*>(data);
        const char* unit = nullptr;
        const char* mode = nullptr;
        require(sd_bus_message_read(message, "ss", &unit, &mode));
        say(std::string("StartUnit ") + unit);
        if (self.unit_ != unit) {
            return sd_bus_error_setf(error, noSuchUnit, "Unit %s not found.", unit);
        }
        ++self.job_;
        require(sd_bus_reply_method_return(message, "o", self.job().c_str()));
        self.isStarting_ = true;
        if (self.isReady_) {
            self.endJob("done");
        } else if (self.process_ == 0) {
            self.start();
        }
        return 1;
    }

    static int onNotification(sd_event_source* /*source*/, int descriptor, std::uint32_t /*events*/, void* data) {
        std::array<char, 4096> text{};
        const ssize_t count = ::recv(descriptor, text.data(), text.size() - 1, 0);
        auto& self = *static_cast<Manager*>(data);
        if (count > 0 && std::string(text.data()).find("READY=1") != std::string::npos && self.process_ != 0) {
            self.isReady_ = true;
            say("started");
            self.endJob("done");
        }
        return 0;
    }
    static int onChild(sd_event_source* /*source*/, const siginfo_t* info, void* data) {
        auto& self = *static_cast<Manager*>(data);
        self.process_ = 0;
        self.isReady_ = false;
        say("exited " + std::to_string(info->si_status));
        if (self.isEnding_) {
            return sd_event_exit(self.event_, 0);
        }
        if (info->si_code == CLD_EXITED && info->si_status == restartStatus) {
            self.start();
        } else {
            self.endJob("failed");
        }
        return 0;
    }
    static int onTerm(sd_event_source* /*source*/, const signalfd_siginfo* /*info*/, void* data) {
        auto& self = *static_cast<Manager*>(data);
        self.isEnding_ = true;
        return self.process_ == 0 ? sd_event_exit(self.event_, 0) : ::kill(self.process_, SIGTERM);
    }

    void listenForNotifications() {
        const int descriptor = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        // an abstract name of the system's choice
        socklen_t length = sizeof(sa_family_t);
        if (::bind(descriptor, reinterpret_cast<sockaddr*>(&address), length) != 0) {
            throw std::runtime_error(std::strerror(errno));
        }
        length = sizeof address;
        ::getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length);
        notifySocket_ = "@" + std::string(address.sun_path + 1, length - sizeof(sa_family_t) - 1);
        require(sd_event_add_io(event_, nullptr, descriptor, EPOLLIN, onNotification, this));
    }

    void start() {
        process_ = ::fork();
        if (process_ == 0) {
            sigset_t none;
            sigemptyset(&none);
            sigprocmask(SIG_SETMASK, &none, nullptr);
            ::dup2(STDERR_FILENO, STDOUT_FILENO);
            ::setenv("NOTIFY_SOCKET", notifySocket_.c_str(), 1);
            ::setenv("SYSTEMD_EXEC_PID", std::to_string(::getpid()).c_str(), 1);
            ::setenv("ORLINTH_RESTART_STATUS", std::to_string(restartStatus).c_str(), 1);
            ::execv(command_[0], command_);
            ::_exit(127);
        }
        require(sd_event_add_child(event_, nullptr, process_, WEXITED, onChild, this));
    }

    [[nodiscard]] std::string job() const { return std::string(object) + "/job/" + std::to_string(job_); }
    void endJob(const char* result) {
        if (isStarting_ && isSubscribed_) {
            require(sd_bus_emit_signal(bus_, object, interface, "JobRemoved", "uoss", job_, job().c_str(),
                                       unit_.c_str(), result));
        }
        isStarting_ = false;
    }

    const std::string unit_;
    char** const command_;
    sd_event* event_ = nullptr;
    sd_bus* bus_ = nullptr;
    std::string notifySocket_;
    pid_t process_ = 0; ///< 0: it does not run
    bool isReady_ = false;
    bool isStarting_ = false; ///< somebody waits for the job
    bool isSubscribed_ = false;
    bool isEnding_ = false;
    std::uint32_t job_ = 0;
};

} // namespace

int main(int count, char** arguments) {
    try {
        if (count < 3) {
            throw std::runtime_error("user_manager UNIT PROGRAM [ARGUMENT...]");
        }
        Manager(arguments[1], arguments + 2).run();
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "user_manager: %s\n", error.what());
    }
    return 1;
}
