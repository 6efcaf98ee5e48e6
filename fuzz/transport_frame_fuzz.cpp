// Arbitrary bytes as the plaintext of a transport frame: its type byte, and JSON or data.

#include "FuzzSupport.h"
#include "OrlinthCore/SecureChannel/TransportFrame.h"

#include <array>

using namespace orlinth;
using namespace orlinth::fuzzing;

namespace {

using Case = TransportFramer::Error::Case;
using Outcome = std::variant<TransportMessage, Bytes, Case>;

NoiseTransport session(bool sending) {
    const SecretBytes key(Bytes(32, std::byte{1}));
    const platform::PublicKey nobody(std::array<std::byte, 32>{});
    return sending ? NoiseTransport({}, nobody, CipherState(key), CipherState())
                   : NoiseTransport({}, nobody, CipherState(), CipherState(key));
}

Outcome opened(ByteView body) {
    TransportFramer framer(session(false));
    try {
        DecodedFrame frame = framer.decode(body);
        if (auto* message = std::get_if<TransportMessage>(&frame)) {
            return std::move(*message);
        }
        return std::get<Bytes>(std::move(frame));
    } catch (const TransportFramer::Error& error) {
        demand(!error.description().empty() && error.description().size() < 1000, "error texts stay short");
        return error.which();
    }
}

Outcome openedInPlace(Bytes body) {
    TransportFramer framer(session(false));
    try {
        const FrameView frame = framer.decodeInPlace(body);
        if (const auto* message = std::get_if<TransportMessage>(&frame)) {
            return *message;
        }
        return toBytes(std::get<MutableBytes>(frame));
    } catch (const TransportFramer::Error& error) {
        return error.which();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const ByteView plaintext = std::as_bytes(std::span(data, size));
    NoiseTransport sender = session(true);
    const Bytes body = sender.encrypt(plaintext, {});
    const Outcome outcome = opened(body);
    demand(outcome == openedInPlace(body), "with or without a copy");
    demand(opened(plaintext) == Outcome(Case::decrypt), "nothing opens that was not sealed");

    if (plaintext.empty()) {
        demand(outcome == Outcome(Case::malformed), "an empty plaintext is malformed");
    } else if (plaintext.front() == TransportFramer::typeByteBinary) {
        demand(outcome == Outcome(toBytes(plaintext.subspan(1))), "binary data is what was sealed");
    } else if (plaintext.front() != TransportFramer::typeByteJSON) {
        demand(outcome == Outcome(Case::unknownType), "other types are unknown");
    } else if (const auto* message = std::get_if<TransportMessage>(&outcome)) {
        const std::string json = message->toJson();
        demand(TransportMessage::fromJson(asBytes(json)) == *message, "a message comes back equal");
        demand(TransportMessage::fromJson(asBytes(json)).toJson() == json, "and is written the same");
    } else {
        demand(outcome == Outcome(Case::malformed), "JSON is a message or malformed");
    }
    return 0;
}
