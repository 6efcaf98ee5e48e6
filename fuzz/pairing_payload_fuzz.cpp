#include "FuzzSupport.h"
#include "OrlinthCore/Pairing/PairingPayload.h"

namespace {

using orlinth::PairingError;
using orlinth::PairingPayload;
using orlinth::fuzzing::demand;

void takeSecret(const PairingPayload& payload) {
    try {
        demand(payload.secret().size() == PairingPayload::secretBytes, "a secret has its length");
    } catch (const PairingError& error) {
        demand(error.which() == PairingError::Case::decodingFailed, "the secret's text is at fault");
    }
}

} // namespace

/// What stands in a QR code that somebody holds up: it decodes to a payload that is written and read as the same one,
/// or is decodingFailed.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        PairingPayload payload = PairingPayload::decode(std::as_bytes(std::span(data, size)));
        takeSecret(payload);
        demand(PairingPayload::decode(payload.jsonData().reveal()) == payload, "a payload survives its JSON");
        const PairingPayload moved = std::move(payload);
        payload = moved;
        demand(payload == moved, "a copy is equal");
    } catch (const PairingError& error) {
        demand(error.which() == PairingError::Case::decodingFailed, "what decodes encodes");
        demand(!error.description().empty(), "an error has a text");
    }
    return 0;
}
