#include "platform/linux/LinuxNetwork.h"

#include "platform/Cancelled.h"
#include "platform/Event.h"
#include "platform/SystemError.h"
#include "platform/linux/SystemdLibrary.h"

#include <asio/bind_executor.hpp>
#include <asio/redirect_error.hpp>
#include <asio/strand.hpp>
#include <asio/this_coro.hpp>
#include <asio/use_awaitable.hpp>

#include <cerrno>
#include <cstdlib>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <utility>

namespace orlinth::platform {
namespace {

using Tcp = asio::ip::tcp;

/// One attempt. The failure of the address is left in `failure`; null then.
Task<std::unique_ptr<Stream>> connectTo(Tcp::endpoint remote, Executor executor, std::error_code& failure) {
    Tcp::socket socket(executor);
    try {
        openTcpSocket(socket, remote.protocol());
        setSocketOption(socket.native_handle(), IPPROTO_TCP, TCP_NODELAY, 1);
    } catch (const SystemError& error) {
        failure = error.code();
        co_return nullptr;
    }
    failure.clear();
    try {
        co_await socket.async_connect(remote, asio::redirect_error(asio::use_awaitable, failure));
    } catch (const std::exception& error) {
        throwFromAwait(error);
    }
    if (failure == asio::error::operation_aborted) {
        throw Cancelled();
    }
    if (failure) {
        co_return nullptr;
    }
    // A free port on this computer can be met with itself: the system may choose it for our own end as well.
    std::error_code ignored;
    if (socket.local_endpoint(ignored) == remote) {
        failure = std::error_code(ECONNREFUSED, std::generic_category());
        co_return nullptr;
    }
    co_return std::make_unique<TcpStream>(std::move(socket), remote);
}

/// A name on its way through the system's resolver, which works on a thread of its own and cannot be interrupted:
/// whoever waits may leave, and the answer then goes nowhere.
struct Resolution {
    explicit Resolution(Executor executor) : isHere(std::move(executor)) {}

    Event isHere; ///< the answer, in what follows
    std::error_code code;
    std::vector<Tcp::endpoint> endpoints;
};

} // namespace

LinuxNetwork::LinuxNetwork(asio::io_context& context)
    : context_(context), resolving_(std::make_shared<std::atomic<int>>(0)) {}

Task<std::unique_ptr<Stream>> LinuxNetwork::connect(std::string host, std::uint16_t port, Executor executor) {
    const std::vector<Tcp::endpoint> endpoints = co_await endpointsOf(std::move(host), port);
    std::error_code failure = asio::error::host_not_found;
    for (const Tcp::endpoint& endpoint : endpoints) {
        std::unique_ptr<Stream> stream = co_await connectTo(endpoint, executor, failure);
        if (stream) {
            co_return stream;
        }
    }
    throw SystemError(failure);
}

Task<std::vector<Tcp::endpoint>> LinuxNetwork::endpointsOf(std::string host, std::uint16_t port) {
    if (host.empty() || host.find('\0') != std::string::npos) {
        throw SystemError(asio::error::host_not_found); // the resolver takes "" for this computer, and cuts at a NUL
    }
    std::error_code code;
    const asio::ip::address literal = asio::ip::make_address(host, code);
    if (!code) {
        co_return std::vector<Tcp::endpoint>{Tcp::endpoint(literal, port)};
    }
    const Executor executor = co_await asio::this_coro::executor;
    const auto resolution = std::make_shared<Resolution>(executor);
    resolving_->fetch_add(1);
    const std::shared_ptr<void> counted(nullptr, [count = resolving_](void*) { count->fetch_sub(1); });
    auto onAnswer = [resolution, counted](std::error_code answerCode, const Tcp::resolver::results_type& answer) {
        resolution->code = answerCode;
        for (const auto& entry : answer) {
            resolution->endpoints.push_back(entry.endpoint());
        }
        resolution->isHere.set();
    };
    Tcp::resolver resolver(executor);
    // Kinds of addresses that this computer has none of are left out: their failure would hide the real one.
    resolver.async_resolve(host, std::to_string(port),
                           Tcp::resolver::address_configured | Tcp::resolver::numeric_service,
                           asio::bind_executor(executor, std::move(onAnswer)));
    co_await resolution->isHere.wait();
    if (resolution->code) {
        throw SystemError(resolution->code);
    }
    co_return std::move(resolution->endpoints);
}

std::unique_ptr<Listener> LinuxNetwork::listen(const ListenOptions& options, Executor executor) {
    if (inherited_ && options.port == inherited_->port()) {
        return std::make_unique<TcpListener>(inherited_->duplicate(), options.keepAlive, executor);
    }
    return std::make_unique<TcpListener>(options, executor);
}

std::optional<std::uint16_t> LinuxNetwork::inheritedPort() {
    if (!inherited_) {
        if (std::getenv("LISTEN_PID") == nullptr) {
            return std::nullopt; // nobody passes sockets, and nothing needs to be loaded
        }
        const int count = systemd().sd_listen_fds(1);
        if (count < 0) {
            throw SystemError::fromErrno(-count);
        }
        if (count == 0) {
            return std::nullopt;
        }
        if (count > 1) {
            throw SystemError(std::to_string(count) + " sockets were passed to the program instead of one");
        }
        inherited_ = std::make_unique<TcpListener>(detail::Descriptor(SD_LISTEN_FDS_START), std::nullopt,
                                                   context_.get_executor());
    }
    return inherited_->port();
}

Executor LinuxNetwork::makeSerialQueue(const char* /*label*/) {
    return asio::make_strand(context_);
}

Executor LinuxNetwork::makeWorkerQueue(const char* label) {
    return workers_.makeSerialQueue(label);
}

Executor LinuxNetwork::makeBlockingQueue() {
    return workers_.makeBlockingQueue();
}

Executor LinuxNetwork::makeThreadQueue(const char* label) {
    return workers_.makeThreadQueue(label);
}

std::vector<LateQueue> LinuxNetwork::lateQueues(Seconds limit) {
    return workers_.lateQueues(limit);
}

} // namespace orlinth::platform
