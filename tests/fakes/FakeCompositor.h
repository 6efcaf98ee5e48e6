#pragma once

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace orlinth::fakes {

/// Messages of Wayland as a compositor sends them, in this machine's byte order.
namespace wayland {

inline void appendWord(std::string& bytes, std::uint32_t word) {
    std::array<char, sizeof word> raw{};
    std::memcpy(raw.data(), &word, sizeof word);
    bytes.append(raw.data(), raw.size());
}

[[nodiscard]] inline std::string message(std::uint32_t object, std::uint32_t event, const std::string& body) {
    std::string bytes;
    appendWord(bytes, object);
    appendWord(bytes, static_cast<std::uint32_t>(8 + body.size()) << 16 | event);
    return bytes + body;
}

/// wl_registry.global of the object 2, version 1.
[[nodiscard]] inline std::string global(std::uint32_t number, const std::string& interface) {
    std::string body;
    appendWord(body, number);
    appendWord(body, static_cast<std::uint32_t>(interface.size() + 1));
    body += interface + std::string(4 - interface.size() % 4, '\0');
    appendWord(body, 1);
    return message(2, 0, body);
}

/// wl_registry.global_remove.
[[nodiscard]] inline std::string globalRemove(std::uint32_t number) {
    std::string body;
    appendWord(body, number);
    return message(2, 1, body);
}

/// wl_callback.done of the object 3, and what follows it: wl_display.delete_id.
[[nodiscard]] inline std::string done() {
    std::string serial;
    appendWord(serial, 77);
    std::string number;
    appendWord(number, 3);
    return message(3, 0, serial) + message(1, 1, number);
}

/// The whole answer of a compositor with these interfaces.
[[nodiscard]] inline std::string registry(const std::vector<std::string>& interfaces) {
    std::string bytes;
    std::uint32_t number = 0;
    for (const std::string& interface : interfaces) {
        bytes += global(++number, interface);
    }
    return bytes + done();
}

} // namespace wayland

/// A compositor that answers everybody who connects with the same bytes once something was asked, and keeps the
/// connection open. On a thread of its own.
class FakeCompositor {
public:
    FakeCompositor(std::filesystem::path socket, std::string answer)
        : path_(std::move(socket)), answer_(std::move(answer)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path_.string().copy(address.sun_path, sizeof address.sun_path - 1);
        listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (::bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(listener_, 5) != 0 || ::pipe2(end_.data(), O_CLOEXEC) != 0) {
            throw std::system_error(errno, std::generic_category());
        }
        thread_ = std::thread([this] { serve(); });
    }
    ~FakeCompositor() {
        ::close(end_[1]);
        thread_.join();
        ::close(end_[0]);
        ::close(listener_);
        std::filesystem::remove(path_);
    }
    FakeCompositor(const FakeCompositor&) = delete;
    FakeCompositor& operator=(const FakeCompositor&) = delete;

    /// How often it was asked.
    [[nodiscard]] int asked() const noexcept { return asked_; }

private:
    void serve() {
        std::vector<pollfd> watched{{end_[0], POLLIN, 0}, {listener_, POLLIN, 0}};
        while (::poll(watched.data(), watched.size(), -1) >= 0 && watched[0].revents == 0) {
            for (std::size_t i = 2; i < watched.size(); ++i) {
                std::array<char, 256> request{};
                if (watched[i].revents != 0 && ::recv(watched[i].fd, request.data(), request.size(), 0) > 0) {
                    ++asked_;
                    static_cast<void>(::send(watched[i].fd, answer_.data(), answer_.size(), MSG_NOSIGNAL));
                } else if (watched[i].revents != 0) {
                    ::close(std::exchange(watched[i].fd, -1));
                }
            }
            if (watched[1].revents != 0) {
                watched.push_back({::accept(listener_, nullptr, nullptr), POLLIN, 0});
            }
        }
        for (std::size_t i = 2; i < watched.size(); ++i) {
            if (watched[i].fd != -1) {
                ::close(watched[i].fd);
            }
        }
    }

    std::filesystem::path path_;
    std::string answer_;
    int listener_ = -1;
    std::array<int, 2> end_{-1, -1};
    std::atomic<int> asked_ = 0;
    std::thread thread_;
};

} // namespace orlinth::fakes
