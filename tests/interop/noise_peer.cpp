// Our side of test_noise_interop.py: one party of a handshake over standard input and output.
//
//     noise_peer initiator|responder PROLOGUE_HEX
//
// Everything travels in frames of a 4-byte big-endian length and a body. After the three handshake messages comes one
// frame with the handshake hash, the other side's static key and our own; from then on every received transport
// message is opened and sent back, sealed anew, until the input ends. A failure is one line on standard error,
// status 1.

#include "OrlinthCore/SecureChannel/FrameBuffer.h"
#include "OrlinthCore/SecureChannel/NoiseXX.h"
#include "base/Endian.h"
#include "base/Hex.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <stdexcept>

using namespace orlinth;

namespace {

void sendFrame(ByteView body) {
    FrameBuffer buffer;
    buffer.resizeBody(body.size());
    std::ranges::copy(body, buffer.body().begin());
    const ByteView frame = buffer.frame();
    if (std::fwrite(frame.data(), 1, frame.size(), stdout) != frame.size() || std::fflush(stdout) != 0) {
        throw std::runtime_error("cannot write");
    }
}

std::optional<Bytes> receiveFrame() {
    std::array<std::byte, FrameBuffer::prefixBytes> prefix{};
    if (std::fread(prefix.data(), 1, prefix.size(), stdin) != prefix.size()) {
        return std::nullopt;
    }
    Bytes body(loadBigEndian32(prefix));
    if (std::fread(body.data(), 1, body.size(), stdin) != body.size()) {
        throw std::runtime_error("the input ends in the middle of a frame");
    }
    return body;
}

Bytes requireFrame() {
    std::optional<Bytes> frame = receiveFrame();
    if (!frame) {
        throw std::runtime_error("the input ends in the middle of the handshake");
    }
    return std::move(*frame);
}

void run(NoiseRole role, ByteView prologue) {
    const platform::PrivateKey staticKey = platform::PrivateKey::generate();
    NoiseHandshake handshake(role, staticKey.clone(), prologue);
    for (bool writing = role == NoiseRole::initiator; !handshake.isComplete(); writing = !writing) {
        if (writing) {
            sendFrame(handshake.writeMessage({}));
        } else {
            static_cast<void>(handshake.readMessage(requireFrame()));
        }
    }
    NoiseTransport session = std::move(handshake).finalize();
    sendFrame(
        concatenate({session.handshakeHash(), session.remoteStaticPublicKey().raw(), staticKey.publicKey().raw()}));
    while (const std::optional<Bytes> message = receiveFrame()) {
        sendFrame(session.encrypt(session.decrypt(*message, {}), {}));
    }
}

} // namespace

int main(int count, char** arguments) {
    try {
        const std::span words(arguments, static_cast<std::size_t>(count));
        const std::string_view role = count == 3 ? words[1] : "";
        const std::optional<Bytes> prologue = count == 3 ? hexDecode(words[2]) : std::nullopt;
        if ((role != "initiator" && role != "responder") || !prologue) {
            std::fputs("usage: noise_peer initiator|responder PROLOGUE_HEX\n", stderr);
            return 2;
        }
        run(role == "initiator" ? NoiseRole::initiator : NoiseRole::responder, *prologue);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "noise_peer: %s\n", error.what());
        return 1;
    }
}
