#pragma once

#include "fakes/MemoryNetwork.h"
#include "platform/SystemError.h"
#include "platform/UnixSockets.h"

#include <cerrno>
#include <deque>
#include <map>
#include <optional>

namespace orlinth::fakes {

/// Sockets by path, in memory. A test makes one of its own: nothing is seen by MemoryFileSystem.
class MemoryUnixSockets final : public platform::UnixSockets {
public:
    explicit MemoryUnixSockets(asio::io_context& context) : network_(context) {}
    ~MemoryUnixSockets() override;

    [[nodiscard]] std::unique_ptr<platform::Listener> listen(const platform::Path& path, Executor executor) override {
        if (listenErrno) {
            throw platform::SystemError::fromErrno(*listenErrno);
        }
        if (ports_.contains(path)) {
            throw platform::SystemError::fromErrno(EADDRINUSE);
        }
        auto listener = network_.listen({}, std::move(executor));
        ports_[path] = listener->port();
        return std::make_unique<Named>(*this, path, std::move(listener));
    }

    [[nodiscard]] Task<std::unique_ptr<platform::Stream>> connect(platform::Path path, Executor executor) override {
        if (connectErrno) {
            throw platform::SystemError::fromErrno(*connectErrno);
        }
        const auto found = ports_.find(path);
        if (found == ports_.end()) {
            throw platform::SystemError::fromErrno(ENOENT);
        }
        co_return co_await network_.connect("localhost", found->second, std::move(executor));
    }

    [[nodiscard]] Task<> sendPort(platform::Stream& stream, const platform::Listener& port) override {
        co_await dynamic_cast<MemoryStream&>(stream).sendPort(MemoryNetwork::share(port));
    }
    [[nodiscard]] Task<std::unique_ptr<platform::Listener>> receivePort(platform::Stream& stream,
                                                                        Executor /*executor*/) override {
        co_return co_await dynamic_cast<MemoryStream&>(stream).receivePort();
    }

    /// What is passed is in the order of its passing, whatever the connection.
    [[nodiscard]] Task<> sendSecret(platform::Stream& stream, ByteView bytes) override {
        secrets_.emplace_back(bytes);
        const std::byte companion{};
        co_await stream.writeAll(ByteView(&companion, 1));
    }
    [[nodiscard]] Task<SecretBytes> receiveSecret(platform::Stream& stream, std::size_t maxBytes) override {
        std::byte companion{};
        const std::size_t count = co_await stream.readExact(MutableBytes(&companion, 1));
        if (count == 0 || secrets_.empty()) {
            throw platform::SystemError::fromErrno(EBADMSG);
        }
        SecretBytes secret = std::move(secrets_.front());
        secrets_.pop_front();
        if (secret.size() > maxBytes) {
            throw platform::SystemError::fromErrno(EMSGSIZE);
        }
        co_return secret;
    }

    /// Whether somebody listens there.
    [[nodiscard]] bool isOpen(const platform::Path& path) const { return ports_.contains(path); }
    /// listen() and connect() fail with these errors, if set.
    std::optional<int> listenErrno;
    std::optional<int> connectErrno;
    /// Whoever accepts a connection from now on gets this error instead.
    void failAccepting(int number) { network_.acceptErrno = number; }

private:
    class Named final : public platform::Listener {
    public:
        Named(MemoryUnixSockets& owner, platform::Path path, std::unique_ptr<platform::Listener> listener)
            : owner_(owner), path_(std::move(path)), listener_(std::move(listener)) {}
        ~Named() override { owner_.ports_.erase(path_); }

        [[nodiscard]] Task<std::unique_ptr<platform::Stream>> accept(Executor executor) override {
            return listener_->accept(std::move(executor));
        }
        [[nodiscard]] std::uint16_t port() const noexcept override { return listener_->port(); }
        void close() noexcept override { listener_->close(); }

    private:
        MemoryUnixSockets& owner_;
        platform::Path path_;
        std::unique_ptr<platform::Listener> listener_;
    };

    MemoryNetwork network_;
    std::map<platform::Path, std::uint16_t> ports_;
    std::deque<SecretBytes> secrets_;
};

} // namespace orlinth::fakes
