#pragma once

#include "base/SecretBytes.h"
#include "platform/FileSystem.h"
#include "platform/Network.h"

namespace orlinth::platform {

/// Connections between programs of one user on one computer, through a socket in the file system.
class UnixSockets {
public:
    virtual ~UnixSockets() = default;
    /// Listens at `path`, in place of a socket that nobody listens on any more; only the user may connect (0600).
    /// Destroying the listener removes the socket. The path may be longer than the system's limit for socket names.
    /// @throws SystemError (address in use where somebody listens)
    [[nodiscard]] virtual std::unique_ptr<Listener> listen(const Path& path, Executor executor) = 0;
    /// @throws SystemError: no such file, connection refused
    [[nodiscard]] virtual Task<std::unique_ptr<Stream>> connect(Path path, Executor executor) = 0;
    /// Gives the program at the other end of `stream`, one of the above, a hold on an open TCP port, and keeps its own.
    /// The other end calls receivePort() at the same place of the conversation. `stream` and `port` outlive the call.
    /// @throws SystemError
    [[nodiscard]] virtual Task<> sendPort(Stream& stream, const Listener& port) = 0;
    /// Accepted connections have Nagle's algorithm off and no keep-alive. @throws SystemError
    [[nodiscard]] virtual Task<std::unique_ptr<Listener>> receivePort(Stream& stream, Executor executor) = 0;
    /// Passes these bytes to the program at the other end in memory of its own, so that they are in no message. The
    /// other end calls receiveSecret() at the same place of the conversation. `stream` and `bytes` outlive the call.
    /// @throws SystemError
    [[nodiscard]] virtual Task<> sendSecret(Stream& stream, ByteView bytes) = 0;
    /// @throws SystemError, also if there are more than `maxBytes`
    [[nodiscard]] virtual Task<SecretBytes> receiveSecret(Stream& stream, std::size_t maxBytes) = 0;
};

} // namespace orlinth::platform
