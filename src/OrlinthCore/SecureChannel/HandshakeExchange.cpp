#include "OrlinthCore/SecureChannel/HandshakeExchange.h"

namespace orlinth {

namespace {

Task<> send(WireConnection& wire, NoiseHandshake& handshake) {
    const Bytes message = handshake.writeMessage({});
    co_await wire.sendLengthPrefixed(message);
}

Task<> receive(WireConnection& wire, NoiseHandshake& handshake, std::size_t limit = NoiseHandshake::maxMessageBytes) {
    FrameBuffer message;
    co_await wire.receiveFrame(message, limit);
    static_cast<void>(handshake.readMessage(message.body())); // whatever the payload says, nobody has asked for it
}

} // namespace

Task<> exchangeAsInitiator(WireConnection& wire, NoiseHandshake& handshake) {
    co_await send(wire, handshake);
    co_await receive(wire, handshake);
    co_await send(wire, handshake);
}

Task<> exchangeAsResponder(WireConnection& wire, NoiseHandshake& handshake, std::size_t limit,
                           std::function<void()> onFirstMessage) {
    co_await receive(wire, handshake, limit);
    if (onFirstMessage) {
        onFirstMessage();
    }
    co_await send(wire, handshake);
    co_await receive(wire, handshake, limit);
}

} // namespace orlinth
