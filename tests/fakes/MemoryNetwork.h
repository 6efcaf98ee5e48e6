#pragma once

#include "fakes/Event.h"
#include "platform/Clock.h"
#include "platform/Network.h"

#include <asio/io_context.hpp>

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <system_error>
#include <vector>

namespace orlinth::fakes {

/// How one direction of a connection misbehaves.
struct WireFaults {
    /// Bytes after which the connection breaks with a reset (both ways); absent: never.
    std::optional<std::size_t> resetAfter = {};
    /// Bytes after which this direction ends as if its sender had closed; absent: never.
    std::optional<std::size_t> endAfter = {};
    /// Bytes after which nothing arrives any more and nobody says so, as on a cut wire; absent: never.
    std::optional<std::size_t> vanishAfter = {};
    /// Position of a byte that arrives with one bit flipped; absent: none.
    std::optional<std::size_t> flipBitAt = {};
    /// Bytes that reach the reader in one go, at most.
    std::size_t pieceBytes = SIZE_MAX;
};

namespace detail {

/// One direction of a connection.
struct Pipe {
    explicit Pipe(const Executor& executor) : changed(executor) {}
    static constexpr std::size_t capacity = 64 << 10; // what a writer may be ahead of the reader

    std::vector<std::byte> bytes;                          // at most `capacity`, so that taking from its front is cheap
    std::deque<std::unique_ptr<platform::Listener>> ports; // under way between two programs of one computer
    std::size_t written = 0;
    bool ended = false;  // no more will be written
    bool broken = false; // reset
    std::size_t vanished = 0;
    WireFaults faults;
    Event changed;

    /// Bytes that may still be written before a fault happens.
    [[nodiscard]] std::size_t untilNextFault() const;
    void take(ByteView piece);
};

} // namespace detail

/// One end of an in-memory connection. Everything runs on one thread.
class MemoryStream : public platform::Stream {
public:
    MemoryStream(std::shared_ptr<detail::Pipe> incoming, std::shared_ptr<detail::Pipe> outgoing, Executor executor,
                 std::string remoteEndpoint);
    ~MemoryStream() override;

    [[nodiscard]] Task<> writeAll(ByteView data) override;
    [[nodiscard]] Task<std::size_t> readExact(MutableBytes into) override;
    void finishWriting() noexcept override;
    void cancel() noexcept override;
    void abort() noexcept override;
    void resetOnClose(bool resets) noexcept override { resetsOnClose_ = resets; }
    void setKeepAlive(const platform::KeepAlive& keepAlive) noexcept override {
        keepAlive_ = keepAlive;
        if (keepAlives_) {
            keepAlives_->push_back(keepAlive);
        }
    }
    /// Notes in `list` whatever setKeepAlive() is called with.
    void noteKeepAlives(std::shared_ptr<std::vector<platform::KeepAlive>> list) { keepAlives_ = std::move(list); }
    [[nodiscard]] bool hasEnded() const noexcept override {
        return cancelled_ || incoming_->broken || incoming_->ended;
    }
    [[nodiscard]] Task<> untilEnded() override;
    /// The peer's system takes at once whatever arrives.
    [[nodiscard]] std::optional<std::int64_t> unacknowledgedBytes() const noexcept override;
    [[nodiscard]] Executor executor() const override { return executor_; }
    [[nodiscard]] std::string remoteEndpoint() const override { return remoteEndpoint_; }
    [[nodiscard]] std::string localAddress() const override { return "203.0.113.1"; }

    /// From now on nothing that the other end sends arrives, nor does word of what has arrived last.
    void cutWire() noexcept;
    /// The other end gets word of so many of the bytes that have vanished.
    void acknowledge(std::size_t bytes) noexcept { incoming_->vanished -= bytes; }
    /// As UnixSockets has it: a byte with a hold on a port.
    [[nodiscard]] Task<> sendPort(std::unique_ptr<platform::Listener> port);
    [[nodiscard]] Task<std::unique_ptr<platform::Listener>> receivePort();
    [[nodiscard]] const std::optional<platform::KeepAlive>& keepAlive() const noexcept { return keepAlive_; }
    [[nodiscard]] bool isCancelled() const noexcept { return cancelled_; }
    /// How often writeAll() was called: one a frame is what the wire layer promises.
    [[nodiscard]] int writeCalls() const noexcept { return writeCalls_; }

private:
    void checkUsable(const detail::Pipe& pipe) const;

    std::shared_ptr<detail::Pipe> incoming_;
    std::shared_ptr<detail::Pipe> outgoing_;
    Executor executor_;
    std::string remoteEndpoint_;
    bool cancelled_ = false;
    bool resetsOnClose_ = false;
    int writeCalls_ = 0;
    std::optional<platform::KeepAlive> keepAlive_;
    std::shared_ptr<std::vector<platform::KeepAlive>> keepAlives_;
};

struct MemoryConnection {
    std::unique_ptr<MemoryStream> first;
    std::unique_ptr<MemoryStream> second;
};

/// Two connected ends; the faults are of what the named end sends. `source` is what the second one takes the first for.
[[nodiscard]] MemoryConnection connectedStreams(const Executor& executor, WireFaults fromFirst = {},
                                                WireFaults fromSecond = {},
                                                const std::string& source = "203.0.113.1:40112");

/// A network of its own: ports that are listened on inside it, hosts that behave as a test says.
class MemoryNetwork : public platform::Network {
public:
    explicit MemoryNetwork(asio::io_context& context) : context_(context) {}

    [[nodiscard]] Task<std::unique_ptr<platform::Stream>> connect(std::string host, std::uint16_t port,
                                                                  Executor executor) override;
    [[nodiscard]] std::unique_ptr<platform::Listener> listen(const platform::ListenOptions& options,
                                                             Executor executor) override;

    /// Connections to this host neither succeed nor fail.
    void makeSilent(const std::string& host) { silent_[host] = true; }
    /// Connections to this host fail with `code`, each so long by `clock` after it was begun.
    void makeFail(const std::string& host, std::error_code code, platform::Clock& clock, Seconds delay = 0s) {
        failing_.insert_or_assign(host, Failure{code, &clock, delay});
    }
    void makeFailWithErrno(const std::string& host, int number, platform::Clock& clock, Seconds delay = 0s) {
        makeFail(host, std::error_code(number, std::generic_category()), clock, delay);
    }
    /// Connections that are begun from now on find their port, or are refused.
    void makeAnswer(const std::string& host) {
        silent_[host] = false;
        failing_.erase(host);
    }
    /// Faults of the next connections, taken one by one: of what the connecting side sends, and of what it receives.
    std::deque<std::pair<WireFaults, WireFaults>> faults;
    /// By which the other side sees the next connections, taken one by one: "192.168.1.7:40112".
    std::deque<std::string> sources;
    /// Whoever accepts a connection gets this error instead, if set.
    std::optional<int> acceptErrno;
    /// listen() fails with this error, if set; at the places named here with theirs.
    std::optional<int> listenErrno;
    std::map<std::string, int> placeErrnos;
    /// listen() fails with "address in use" for more than one place, as if they excluded each other.
    bool placesExcludeEachOther = false;
    /// What listen() was called with, failures included.
    std::vector<platform::ListenOptions> listens;
    /// What inheritedPort() returns. Once used it stays open: connections wait when nobody listens.
    std::optional<std::uint16_t> inherited;
    [[nodiscard]] std::optional<std::uint16_t> inheritedPort() override { return inherited; }

    /// Another hold on the port that this listener has open: it is closed once both are.
    [[nodiscard]] static std::unique_ptr<platform::Listener> share(const platform::Listener& listener);
    /// Whether somebody listens there.
    [[nodiscard]] bool isOpen(std::uint16_t port) const { return ports_.contains(port); }

    /// Calls of connect() so far: host and port.
    std::vector<std::pair<std::string, std::uint16_t>> attempts;
    /// What keep-alive was switched on with, on connections that connect() has opened.
    std::shared_ptr<std::vector<platform::KeepAlive>> keepAlives = std::make_shared<std::vector<platform::KeepAlive>>();

private:
    friend class MemoryListener;
    struct Port {
        explicit Port(const Executor& executor) : changed(executor) {}
        std::deque<std::unique_ptr<platform::Stream>> waiting;
        int holders = 0;
        std::string place; ///< the first, as Listener::place() has it
        Event changed;     ///< somebody waits, or has let go of the port
    };
    asio::io_context& context_;
    std::map<std::uint16_t, std::shared_ptr<Port>> ports_;
    std::map<std::string, bool> silent_;
    struct Failure {
        std::error_code code;
        platform::Clock* clock;
        Seconds delay;
    };
    std::map<std::string, Failure> failing_; ///< by host
    std::uint16_t nextFreePort_ = 40000;
};

} // namespace orlinth::fakes
