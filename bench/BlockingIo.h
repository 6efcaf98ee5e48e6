#pragma once

#include <arpa/inet.h>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>
#include <utility>

/// What the yardsticks share: blocking system calls whose failure is thrown. Nothing of ours is in here.
namespace bench {

template <typename Integer>
Integer checkSystem(Integer result, const char* what) {
    if (result < 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
    return result;
}

/// Closed at the end of its scope.
class Descriptor {
public:
    explicit Descriptor(int number) : number_(number) {}
    Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Descriptor& operator=(Descriptor&&) = delete;
    ~Descriptor() {
        if (number_ >= 0) {
            close(number_);
        }
    }
    [[nodiscard]] int get() const { return number_; }

private:
    int number_;
};

/// A number from the command line, none below zero.
inline int numberFrom(std::string_view text) {
    int number = 0;
    const auto [end, error] = std::from_chars(text.begin(), text.end(), number);
    if (error != std::errc() || end != text.end() || number < 0) {
        throw std::invalid_argument("not a number: " + std::string(text));
    }
    return number;
}

inline sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

inline void sendImmediately(const Descriptor& connection) {
    const int yes = 1;
    checkSystem(setsockopt(connection.get(), IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes), "TCP_NODELAY");
}

inline Descriptor connectToLoopback(std::uint16_t port) {
    Descriptor connection(checkSystem(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket"));
    const sockaddr_in address = loopback(port);
    checkSystem(connect(connection.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), "connect");
    sendImmediately(connection);
    return connection;
}

/// Listens on a free port and prints it on a line of its own.
inline Descriptor listenOnLoopback(int backlog) {
    Descriptor listener(checkSystem(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket"));
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof address;
    checkSystem(bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), size), "bind");
    checkSystem(listen(listener.get(), backlog), "listen");
    checkSystem(getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &size), "getsockname");
    std::printf("%d\n", ntohs(address.sin_port));
    std::fflush(stdout);
    return listener;
}

inline Descriptor acceptFrom(const Descriptor& listener) {
    Descriptor connection(checkSystem(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC), "accept"));
    sendImmediately(connection);
    return connection;
}

/// Fills the buffer; false if the stream ended before its first byte.
inline bool readExact(const Descriptor& connection, void* into, std::size_t length) {
    for (std::size_t filled = 0; filled < length;) {
        const ssize_t count = checkSystem(
            recv(connection.get(), static_cast<char*>(into) + filled, length - filled, MSG_WAITALL), "receive");
        if (count == 0) {
            if (filled == 0) {
                return false;
            }
            throw std::runtime_error("receive: the stream ended within a frame");
        }
        filled += static_cast<std::size_t>(count);
    }
    return true;
}

inline void sendAll(const Descriptor& connection, const void* data, std::size_t length) {
    for (std::size_t sent = 0; sent < length;) {
        sent += static_cast<std::size_t>(checkSystem(
            ::send(connection.get(), static_cast<const char*>(data) + sent, length - sent, MSG_NOSIGNAL), "send"));
    }
}

inline void writeAll(const Descriptor& file, const void* data, std::size_t length) {
    for (std::size_t written = 0; written < length;) {
        written += static_cast<std::size_t>(
            checkSystem(write(file.get(), static_cast<const char*>(data) + written, length - written), "write"));
    }
}

} // namespace bench
