#pragma once

#include "platform/Network.h"
#include "platform/linux/TcpListener.h"
#include "platform/linux/WorkerThreads.h"

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>

#include <atomic>
#include <vector>

namespace orlinth::platform {

/// TCP over the kernel's sockets and Asio's reactor. `context` outlives it.
class LinuxNetwork final : public Network {
public:
    explicit LinuxNetwork(asio::io_context& context);
    [[nodiscard]] Task<std::unique_ptr<Stream>> connect(std::string host, std::uint16_t port,
                                                        Executor executor) override;
    [[nodiscard]] std::unique_ptr<Listener> listen(const ListenOptions& options, Executor executor) override;
    /// By sd_listen_fds(3), whose variables it removes from the environment.
    [[nodiscard]] std::optional<std::uint16_t> inheritedPort() override;
    [[nodiscard]] Executor makeSerialQueue(const char* label) override;
    [[nodiscard]] Executor makeWorkerQueue(const char* label) override;
    [[nodiscard]] Executor makeBlockingQueue() override;
    [[nodiscard]] Executor makeThreadQueue(const char* label) override;
    [[nodiscard]] std::vector<LateQueue> lateQueues(Seconds limit) override;

    /// Whether a name is being resolved, also where nobody waits for it any more.
    [[nodiscard]] bool isResolving() const noexcept { return resolving_->load() != 0; }

private:
    [[nodiscard]] Task<std::vector<asio::ip::tcp::endpoint>> endpointsOf(std::string host, std::uint16_t port);

    asio::io_context& context_;
    WorkerThreads workers_;
    std::unique_ptr<TcpListener> inherited_;      ///< never accepts; others are made from its descriptor
    std::shared_ptr<std::atomic<int>> resolving_; ///< shared with resolutions, which may outlive everything but Asio
};

} // namespace orlinth::platform
