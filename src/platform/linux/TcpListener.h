#pragma once

#include "platform/Network.h"
#include "platform/linux/Descriptor.h"
#include "platform/linux/SocketStream.h"

#include <asio/ip/tcp.hpp>
#include <asio/posix/stream_descriptor.hpp>

#include <optional>
#include <string>
#include <vector>

namespace orlinth::platform {

/// @throws SystemError
void setSocketOption(int socket, int level, int name, int value);

/// Opens a socket that programs started from here do not inherit. @throws SystemError
void openTcpSocket(asio::ip::tcp::socket& socket, const asio::ip::tcp& protocol);

/// A connection over TCP.
class TcpStream final : public SocketStream<asio::ip::tcp::socket> {
public:
    TcpStream(asio::ip::tcp::socket socket, const asio::ip::tcp::endpoint& remote);
    void abort() noexcept override;
    void resetOnClose(bool resets) noexcept override;
    void setKeepAlive(const KeepAlive& keepAlive) noexcept override;
    [[nodiscard]] std::optional<std::int64_t> unacknowledgedBytes() const noexcept override;
    [[nodiscard]] std::string localAddress() const override;
};

/// A listening socket of the kernel.
class TcpListener final : public Listener {
public:
    /// Opens a port as Network::listen() does. @throws SystemError
    TcpListener(const ListenOptions& options, const Executor& executor);
    /// Takes a socket that listens already. It may be shared with others.
    /// @throws SystemError if it is no listening TCP socket
    TcpListener(detail::Descriptor socket, std::optional<KeepAlive> keepAlive, const Executor& executor);

    [[nodiscard]] Task<std::unique_ptr<Stream>> accept(Executor executor) override;
    [[nodiscard]] std::uint16_t port() const noexcept override { return port_; }
    [[nodiscard]] std::string place() const override;
    void close() noexcept override;

    /// The socket, which stays this object's; of several, the first. -1 once it is closed.
    [[nodiscard]] int descriptor() const noexcept;
    /// A further descriptor of the same socket. @throws SystemError
    [[nodiscard]] detail::Descriptor duplicate() const;

private:
    /// One of the sockets, and what kind of addresses it has.
    struct Door {
        asio::ip::tcp protocol;
        asio::ip::tcp::acceptor acceptor;
    };

    void openEverywhere(const Executor& executor);
    void openAt(const std::string& place, const Executor& executor);
    [[nodiscard]] Door& addDoor(const asio::ip::tcp& protocol, const Executor& executor);
    void bindAndListen(Door& door, const asio::ip::address& address);
    void watchAll(const Executor& executor);
    [[nodiscard]] std::unique_ptr<Stream> acceptNow(const Executor& executor, bool& isAnybodyThere);
    [[nodiscard]] static std::unique_ptr<Stream> adopt(const Door& door, detail::Descriptor accepted,
                                                       const std::optional<KeepAlive>& keepAlive,
                                                       const Executor& executor);
    [[nodiscard]] Task<> waitForAnybody();

    std::vector<Door> doors_;
    std::optional<asio::posix::stream_descriptor> all_; ///< ready when one of several doors is; absent for a single one
    std::optional<KeepAlive> keepAlive_;
    std::uint16_t port_ = 0;
    std::size_t next_ = 0; ///< whose turn it was
    bool closed_ = false;
};

} // namespace orlinth::platform
