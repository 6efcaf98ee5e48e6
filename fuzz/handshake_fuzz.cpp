// Arbitrary bytes as a handshake message, for both roles and every step.
//
// Input: which message (low bits) and whether the rest is the message or is laid over the genuine one | the rest.

#include "FuzzSupport.h"
#include "OrlinthCore/SecureChannel/NoiseXX.h"

using namespace orlinth;
using namespace orlinth::fuzzing;

namespace {

platform::PrivateKey fixedKey(unsigned char fill) {
    return platform::PrivateKey::fromRaw(Bytes(platform::PrivateKey::size, std::byte{fill}));
}

/// Two parties with fixed keys, so that a finding comes back.
struct Parties {
    NoiseHandshake initiator{NoiseRole::initiator, fixedKey(1), asBytes("Orlinth_v1"), [] { return fixedKey(2); }};
    NoiseHandshake responder{NoiseRole::responder, fixedKey(3), asBytes("Orlinth_v1"), [] { return fixedKey(4); }};

    NoiseHandshake& writer(std::size_t message) { return message % 2 == 0 ? initiator : responder; }
    NoiseHandshake& reader(std::size_t message) { return message % 2 == 0 ? responder : initiator; }
};

/// The genuine message with the fuzzer's bytes over it, cut or lengthened as the first of them says.
Bytes damagedBy(Input& input, const Bytes& genuine) {
    Bytes message = genuine;
    const std::size_t sizeChange = input.byte();
    if (sizeChange >= 128) {
        message.resize(message.size() + (256 - sizeChange));
    } else {
        message.resize(message.size() - std::min(message.size(), sizeChange));
    }
    const ByteView over = input.rest();
    for (std::size_t i = 0; i < std::min(over.size(), message.size()); ++i) {
        message[i] ^= over[i];
    }
    return message;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    const std::size_t mode = input.byte();
    const std::size_t step = mode % 3;
    Parties parties;
    for (std::size_t message = 0; message < step; ++message) {
        static_cast<void>(parties.reader(message).readMessage(parties.writer(message).writeMessage({})));
    }
    const Bytes genuine = parties.writer(step).writeMessage({});
    const Bytes message = (mode & 0x80) != 0 ? damagedBy(input, genuine) : toBytes(input.rest());
    NoiseHandshake& reader = parties.reader(step);
    try {
        const Bytes payload = reader.readMessage(message);
        demand(step == 0 || message == genuine, "only the genuine message opens");
        demand(reader.isComplete() == (step == 2), "the handshake ends with its third message");
        if (step == 0) {
            demand(message.size() == 32 + payload.size(), "the rest of message 1 is its payload");
            const Bytes answer = reader.writeMessage({});
            static_cast<void>(parties.initiator.readMessage(answer));
            demand(message == genuine, "only the genuine message 1 leads on");
        }
    } catch (const NoiseError& error) {
        demand(message != genuine && !error.description().empty(), "the genuine message is taken");
    } catch (const platform::CryptoError& error) {
        demand(message != genuine && !error.description().empty(), "the genuine message is taken");
    }
    return 0;
}
