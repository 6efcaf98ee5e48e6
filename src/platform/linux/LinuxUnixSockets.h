#pragma once

#include "platform/UnixSockets.h"

namespace orlinth::platform {

/// Unix stream sockets.
class LinuxUnixSockets final : public UnixSockets {
public:
    [[nodiscard]] std::unique_ptr<Listener> listen(const Path& path, Executor executor) override;
    [[nodiscard]] Task<std::unique_ptr<Stream>> connect(Path path, Executor executor) override;
    [[nodiscard]] Task<> sendPort(Stream& stream, const Listener& port) override;
    [[nodiscard]] Task<std::unique_ptr<Listener>> receivePort(Stream& stream, Executor executor) override;
    [[nodiscard]] Task<> sendSecret(Stream& stream, ByteView bytes) override;
    [[nodiscard]] Task<SecretBytes> receiveSecret(Stream& stream, std::size_t maxBytes) override;
};

} // namespace orlinth::platform
