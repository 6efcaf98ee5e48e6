#include "OrlinthCore/SecureChannel/ResponderProof.h"

#include "base/Precondition.h"
#include "base/Text.h"
#include "platform/TimeLimit.h"

#include <utility>

namespace orlinth {
namespace {

/// What a failure on the wire says about who is there.
ResponderError judged(const WireConnection::Error& error) {
    using Case = WireConnection::Error::Case;
    return error.which() == Case::underlying ? ResponderError::network(error.description())
                                             : ResponderError::noFrame(error.description());
}

/// Writes message 1 and reads one frame. Both references outlive the call, which is awaited where it is made.
Task<> exchange(WireConnection& wire, NoiseHandshake& handshake, FrameBuffer& answer) {
    const Bytes first = handshake.writeMessage({});
    co_await wire.sendLengthPrefixed(first);
    co_await wire.receiveFrame(answer, maxSecondMessageBytes);
}

/// The key that message 2 proves. @throws ResponderError
platform::PublicKey provedKey(NoiseHandshake& handshake, ByteView message) {
    if (message.size() < minSecondMessageBytes) {
        throw ResponderError::noFrame("it has " + std::to_string(message.size()));
    }
    try {
        static_cast<void>(handshake.readMessage(message)); // whatever the payload says, nobody has asked for it
    } catch (const Error& error) {                         // NoiseError, or a CryptoError about a key of low order
        throw ResponderError::otherProtocol(error.description());
    }
    return handshake.remoteStaticPublicKey().value();
}

} // namespace

ResponderError ResponderError::silent(Seconds limit) {
    return {Case::silent, "no answer in ", timeInWords(limit)};
}

Task<platform::PublicKey> proveResponder(std::unique_ptr<platform::Stream> stream, platform::Clock& clock,
                                         Seconds limit, std::string prologue) {
    if (!(limit > 0s)) {
        preconditionFailed("a proof of a responder needs a limit");
    }
    // The handshake wants a static key, and never comes to the message that has it: one that means nobody.
    NoiseHandshake handshake(NoiseRole::initiator, platform::PrivateKey::generate(), asBytes(prologue));
    const Executor executor = stream->executor();
    WireConnection wire(std::move(stream), clock);
    platform::TimeLimit timeLimit(clock, executor, [&wire] { wire.close(); });
    timeLimit.begin(limit);
    FrameBuffer answer;
    try {
        co_await exchange(wire, handshake, answer);
    } catch (const WireConnection::Error& error) {
        throw timeLimit.hasExpired() ? ResponderError::silent(limit) : judged(error);
    }
    timeLimit.end();
    wire.close(); // before the arithmetic: the other side need not wait for it
    co_return provedKey(handshake, answer.body());
}

} // namespace orlinth
