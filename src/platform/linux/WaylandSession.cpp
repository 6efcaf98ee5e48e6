#include "platform/linux/WaylandSession.h"

#include "platform/linux/Descriptor.h"
#include "platform/linux/WaylandRegistry.h"

#include <array>
#include <chrono>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace orlinth::platform {
namespace {

using detail::checked;
using detail::Descriptor;
using SteadyClock = std::chrono::steady_clock;

/// What wl-copy and wl-paste use to reach the clipboard without a window. Not ext_data_control_manager_v1, which
/// replaces it: wl-clipboard 2.1 and 2.2 do not know that one and would open a window all the same.
constexpr const char* dataControl = "zwlr_data_control_manager_v1";

Descriptor connectTo(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        throw SystemError::fromErrno(ENAMETOOLONG);
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    // a compositor whose queue is full lets nobody wait: connect() fails at once then
    Descriptor socket = Descriptor::require(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    checked([&] { return ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address); });
    return socket;
}

/// Whether there is something to read before the deadline.
bool awaitInput(const Descriptor& socket, SteadyClock::time_point deadline) {
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - SteadyClock::now()).count();
        if (left <= 0) {
            return false;
        }
        pollfd event{.fd = socket.get(), .events = POLLIN, .revents = 0};
        const int ready = ::poll(&event, 1, static_cast<int>(left));
        if (ready > 0) {
            return true;
        }
        if (ready == -1 && errno != EINTR) {
            throw SystemError::fromErrno();
        }
    }
}

/// @throws SystemError
WaylandSession::Clipboard ask(const std::string& path) {
    const auto deadline = SteadyClock::now() + WaylandSession::limit;
    const Descriptor socket = connectTo(path);
    const Bytes request = WaylandRegistry::request();
    // a few bytes into a new socket: they are taken whole
    checked([&] { return ::send(socket.get(), request.data(), request.size(), MSG_NOSIGNAL); });
    WaylandRegistry registry;
    std::array<std::byte, 4096> piece; // NOLINT(cppcoreguidelines-pro-type-member-init): recv() fills it
    while (registry.state() == WaylandRegistry::State::listing && awaitInput(socket, deadline)) {
        // descriptors that come along, which no compositor has a reason to send, are closed by the kernel
        const auto count = checked([&] { return ::recv(socket.get(), piece.data(), piece.size(), 0); });
        if (count == 0) {
            break;
        }
        registry.take(std::span(piece).first(static_cast<std::size_t>(count)));
    }
    if (registry.state() != WaylandRegistry::State::complete) {
        return WaylandSession::Clipboard::noAnswer;
    }
    return registry.interfaces().contains(dataControl) ? WaylandSession::Clipboard::open
                                                       : WaylandSession::Clipboard::guarded;
}

} // namespace

WaylandSession::Clipboard WaylandSession::clipboard(const std::string& socketPath) {
    const std::optional<Socket> socket = identify(socketPath);
    if (!socket) {
        return Clipboard::noAnswer;
    }
    {
        const MutexLock guard(lock_);
        if (known_ && known_->first == *socket) {
            return known_->second;
        }
    }
    Clipboard answer = Clipboard::noAnswer;
    try {
        answer = ask(socketPath);
    } catch (const SystemError&) {
        return Clipboard::noAnswer; // nobody listens any more, or not to us
    }
    if (answer != Clipboard::noAnswer) {
        const MutexLock guard(lock_);
        known_.emplace(*socket, answer);
    }
    return answer;
}

std::string WaylandSession::socketPath(const std::string& display, const std::string& runtimeFolder) {
    if (display.empty() || display.starts_with('/')) {
        return display;
    }
    return runtimeFolder.starts_with('/') ? runtimeFolder + "/" + display : std::string();
}

std::optional<WaylandSession::Socket> WaylandSession::identify(const std::string& path) {
    struct stat status{};
    if (path.empty() || ::stat(path.c_str(), &status) != 0 || !S_ISSOCK(status.st_mode)) {
        return std::nullopt;
    }
    return Socket{.path = path,
                  .device = status.st_dev,
                  .number = status.st_ino,
                  .changedSeconds = status.st_ctim.tv_sec,
                  .changedNanoseconds = status.st_ctim.tv_nsec};
}

} // namespace orlinth::platform
