#pragma once

#include "OrlinthCore/SecureChannel/HandshakeExchange.h"
#include "fakes/MemoryNetwork.h"

#include <algorithm>
#include <memory>

namespace orlinth::fakes {

/// What whoever asks for a proof of a key sends: the length, and an ephemeral key.
inline constexpr std::size_t bytesOfFirstMessage = 36;

/// Answers the first message of a handshake with a proof of this key, and waits for the end. Whatever comes is counted
/// in `received`, which outlives the task.
[[nodiscard]] inline Task<> proveKey(std::unique_ptr<MemoryStream> stream, platform::PrivateKey key,
                                     std::size_t& received) {
    Bytes first(bytesOfFirstMessage);
    const std::size_t got = co_await stream->readExact(first);
    received += got;
    if (got < first.size()) {
        co_return;
    }
    NoiseHandshake handshake(NoiseRole::responder, std::move(key), asBytes(kOrlinthPrologue));
    static_cast<void>(handshake.readMessage(ByteView(first).subspan(WireConnection::lengthPrefixBytes)));
    const Bytes second = handshake.writeMessage({});
    FrameBuffer frame;
    frame.resizeBody(second.size());
    std::ranges::copy(second, frame.body().begin());
    co_await stream->writeAll(frame.frame());
    Bytes rest(1000);
    received += co_await stream->readExact(rest);
}

} // namespace orlinth::fakes
