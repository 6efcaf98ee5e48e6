#pragma once

#include "fakes/TemporaryFolder.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace orlinth::fakes {

namespace detail {

inline std::atomic<const char*>& currentBusAddress() {
    static std::atomic<const char*> address = "";
    return address;
}

} // namespace detail

/// Where the session's bus is while a test runs; "" for nowhere. Any thread.
[[nodiscard]] inline const char* busAddress() {
    return detail::currentBusAddress();
}
inline void setBusAddress(const std::string& address) {
    static std::mutex lock;
    static std::set<std::string> all; // kept, as another thread may still look at an older one
    const std::lock_guard guard(lock);
    detail::currentBusAddress() = all.insert(address).first->c_str();
}

/// An environment that knows nothing but that.
[[nodiscard]] inline const char* busEnvironment(const char* name) {
    return std::string_view(name) == "DBUS_SESSION_BUS_ADDRESS" && *busAddress() != '\0' ? busAddress() : nullptr;
}

/// A real bus of the test's own, at a socket that it names or in a folder of its own. Becomes the session's.
///
/// Its configuration is its own as well: it starts no service that is installed on this machine, nor lists one.
class PrivateBus {
public:
    explicit PrivateBus(const std::filesystem::path& socketPath = {}) {
        const std::filesystem::path socket = socketPath.empty() ? folder_ / "bus" : socketPath;
        const std::filesystem::path configuration = folder_ / "bus.conf";
        writeText(configuration, configurationText);
        int pipe[2] = {-1, -1};
        if (::pipe(pipe) != 0) {
            throw std::system_error(errno, std::generic_category());
        }
        const std::string config = "--config-file=" + configuration.string();
        const std::string at = "--address=unix:path=" + socket.string();
        const std::string print = "--print-address=" + std::to_string(pipe[1]);
        process_ = ::fork();
        if (process_ == 0) {
            ::execlp("dbus-daemon", "dbus-daemon", config.c_str(), "--nofork", "--nopidfile", "--nosyslog", at.c_str(),
                     print.c_str(), nullptr);
            ::_exit(127);
        }
        ::close(pipe[1]);
        std::string address(512, '\0');
        const ssize_t count = ::read(pipe[0], address.data(), address.size());
        ::close(pipe[0]);
        if (count <= 0) {
            throw std::runtime_error("dbus-daemon does not start");
        }
        address.resize(static_cast<std::size_t>(count));
        setBusAddress(address.substr(0, address.find('\n')));
    }
    ~PrivateBus() { stop(); }
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    void stop() {
        if (process_ > 0) {
            ::kill(process_, SIGTERM);
            ::waitpid(process_, nullptr, 0);
            process_ = 0;
        }
    }

private:
    static constexpr std::string_view configurationText = R"(<!DOCTYPE busconfig PUBLIC
 "-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN" "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:tmpdir=/tmp</listen> <!-- it is asked for; the command line says another -->
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
  </policy>
  <limit name="max_match_rules_per_connection">50000</limit> <!-- a session's, as the next; otherwise a system's -->
  <limit name="max_replies_per_connection">50000</limit>
</busconfig>
)";

    TemporaryFolder folder_;
    pid_t process_ = 0;
};

/// A bus that takes connections and says nothing. Becomes the session's.
class SilentBus {
public:
    SilentBus() : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const std::string path = folder_ / "bus";
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        if (::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(socket_, 5) != 0) {
            throw std::system_error(errno, std::generic_category());
        }
        setBusAddress("unix:path=" + path);
    }
    ~SilentBus() { ::close(socket_); }
    SilentBus(const SilentBus&) = delete;
    SilentBus& operator=(const SilentBus&) = delete;

private:
    TemporaryFolder folder_;
    int socket_;
};

} // namespace orlinth::fakes
