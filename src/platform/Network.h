#pragma once

#include "base/Bytes.h"
#include "base/Time.h"
#include "platform/Task.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace orlinth::platform {

/// TCP keep-alive: the first probe after `idle` of silence, further ones each `interval`, dead after `count`
/// unanswered.
struct KeepAlive {
    std::chrono::seconds idle;
    std::chrono::seconds interval;
    int count;
};

/// One established TCP connection, or its in-memory twin.
///
/// Ownership: destroying it closes it. Threading: every call and every resume on its executor; one read and one write
/// may be under way at once, never two of a kind. Failures are SystemError (or Cancelled, if the task was cancelled).
class Stream {
public:
    virtual ~Stream() = default;
    /// Sends all bytes; returns when the system has taken them, not when the peer has read them.
    /// `data` must stay valid until then.
    [[nodiscard]] virtual Task<> writeAll(ByteView data) = 0;
    /// Fills `into`; returns how many bytes came: fewer only if the stream ended first.
    [[nodiscard]] virtual Task<std::size_t> readExact(MutableBytes into) = 0;
    /// Says to the peer that nothing more will be sent. Reading goes on.
    virtual void finishWriting() noexcept = 0;
    /// Ends the connection now. Pending and later calls fail with "connection cancelled". May be called again.
    virtual void cancel() noexcept = 0;
    /// The same, and the peer sees a reset instead of an orderly end: it must not believe that its bytes were used.
    virtual void abort() noexcept { cancel(); }
    /// From now on every end of the connection is as by abort(), also by destruction, by cancel() and by the end of the
    /// process, whatever ends that; with false, every one is orderly again.
    virtual void resetOnClose(bool /*resets*/) noexcept {}
    /// Notices a peer that is gone, while nothing is sent and while data is under way to it: `idle` and `count`
    /// times `interval` after it was last heard of, pending calls fail. A peer that takes nothing of what is
    /// under way for as long counts as gone. Best effort.
    virtual void setKeepAlive(const KeepAlive& /*keepAlive*/) noexcept {}
    /// Whether the peer has ended its side, or the connection is broken or closed. Looks without reading, so that what
    /// has come stays there to be read. False where that cannot be said.
    [[nodiscard]] virtual bool hasEnded() const noexcept { return false; }
    /// Returns once hasEnded() holds; unread data makes no difference. At most one such wait at a time, beside a read
    /// and a write. Waits for ever where it cannot be said: who overrides one of the two overrides both. The stream
    /// outlives the task.
    /// @throws Cancelled; SystemError if the system has no room for another wait
    [[nodiscard]] virtual Task<> untilEnded();
    /// How many of the bytes written (and of the end of writing, which counts as one) the peer's system has not
    /// acknowledged yet; nothing if that cannot be said, as of a connection that is closed.
    [[nodiscard]] virtual std::optional<std::int64_t> unacknowledgedBytes() const noexcept { return std::nullopt; }
    [[nodiscard]] virtual Executor executor() const = 0;
    /// The peer's address and port as people write them: "192.168.1.7:40112", "[fe80::1%eth0]:40112".
    [[nodiscard]] virtual std::string remoteEndpoint() const = 0;
    /// The address, without a port, that this computer has in the network of the peer: "192.168.1.23", "fe80::1%eth0";
    /// "" once it is closed.
    [[nodiscard]] virtual std::string localAddress() const = 0;
};

/// A listening TCP port. Destroying it closes it.
class Listener {
public:
    virtual ~Listener() = default;
    /// The next connection, established; its work runs on `executor`.
    /// @throws SystemError; "listener cancelled" after close(). A peer that is gone before it is accepted is skipped.
    [[nodiscard]] virtual Task<std::unique_ptr<Stream>> accept(Executor executor) = 0;
    /// The real port, also where a free one was asked for.
    [[nodiscard]] virtual std::uint16_t port() const noexcept = 0;
    /// Where it listens: an address, or the name of the network interface that it is bound to; of several places the
    /// first. "" if it takes every IPv4 connection to this computer, if it is closed, or if that cannot be said.
    [[nodiscard]] virtual std::string place() const { return {}; }
    virtual void close() noexcept = 0;
};

struct ListenOptions {
    std::uint16_t port = 0;             ///< 0 asks the system for a free one
    std::optional<KeepAlive> keepAlive; ///< of accepted connections; absent: off
    /// Where to listen: addresses of this computer ("192.168.1.23", "fe80::1%eth0") and names of network interfaces
    /// ("eth0": every address that it has, now or later). None: everywhere.
    std::vector<std::string> places = {};
};

/// TCP of this computer.
class Network {
public:
    virtual ~Network() = default;
    /// Opens a connection whose work runs on `executor`, with Nagle's algorithm off and no other option set.
    /// `host` is a name, resolved without blocking, or an IPv4 or IPv6 literal; each address is tried in turn.
    /// Has no deadline of its own; cancelling ends it at once, even while a name is being resolved.
    /// @throws SystemError with the last address's failure ("Connection refused").
    [[nodiscard]] virtual Task<std::unique_ptr<Stream>> connect(std::string host, std::uint16_t port,
                                                                Executor executor) = 0;
    /// Listens on every address of the computer, IPv6 and IPv4, or at the places that are named, all on one port; the
    /// local endpoint may be reused.
    /// Accepted connections have Nagle's algorithm off. The inherited port is used as it is, and stays open when the
    /// listener is closed: connections then wait for the next one. @throws SystemError
    [[nodiscard]] virtual std::unique_ptr<Listener> listen(const ListenOptions& options, Executor executor) = 0;
    /// The port that whoever started the program has opened for it (socket activation), if any. Once asked for,
    /// listen() knows it. On the thread that starts others. @throws SystemError if what was passed is no single
    /// listening port
    [[nodiscard]] virtual std::optional<std::uint16_t> inheritedPort() { return std::nullopt; }
};

} // namespace orlinth::platform
