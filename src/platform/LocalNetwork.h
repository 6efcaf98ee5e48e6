#pragma once

#include "platform/FileSystem.h"
#include "platform/Network.h"

namespace orlinth::platform {

/// Connections between programs of one user on one computer, through a socket in the file system.
class LocalNetwork {
public:
    virtual ~LocalNetwork() = default;
    /// Listens at `path`, in place of a socket that nobody listens on any more; only the user may connect (0600).
    /// Destroying the listener removes the socket. The path may be longer than the system's limit for socket names.
    /// @throws SystemError (address in use where somebody listens)
    [[nodiscard]] virtual std::unique_ptr<Listener> listen(const Path& path, Executor executor) = 0;
    /// @throws SystemError: no such file, connection refused
    [[nodiscard]] virtual Task<std::unique_ptr<Stream>> connect(Path path, Executor executor) = 0;
};

} // namespace orlinth::platform
