// Arbitrary bytes as a sealed introduction, and laid over a genuine one.
//
// Input: whether the rest is a blob or damage | how the damaged blob's length changes | the rest.

#include "FuzzSupport.h"
#include "OrlinthCore/Pairing/PairCrypto.h"

using namespace orlinth;
using namespace orlinth::fuzzing;

namespace {

using Case = PairCrypto::Error::Case;
using Cipher = platform::ChaCha20Poly1305;

const SecretBytes& fixedKey() {
    static const SecretBytes key = PairCrypto::deriveAEADKey(Bytes(32, std::byte{1}));
    return key;
}

/// Sealed under a nonce of one's choice, so that a finding comes back.
Bytes sealed(ByteView plaintext, ByteView nonceBytes) {
    Cipher::Nonce nonce{};
    std::ranges::copy(nonceBytes, nonce.begin());
    Bytes text = toBytes(plaintext);
    std::array<std::byte, Cipher::tagBytes> tag{};
    Cipher(fixedKey().reveal().first<Cipher::keyBytes>()).seal(nonce, {}, text, tag);
    return concatenate({nonce, text, tag});
}

std::optional<Bytes> opened(ByteView blob) {
    try {
        return PairCrypto::openIntroduction(blob, fixedKey());
    } catch (const PairCrypto::Error& error) {
        demand((error.which() == Case::ciphertextTooShort) == (blob.size() < PairCrypto::overheadBytes),
               "only fewer than 28 bytes are too few");
        demand(!error.description().empty() && error.description().size() < 200, "error texts stay short");
        return std::nullopt;
    }
}

void openAnything(ByteView blob) {
    if (const std::optional<Bytes> plaintext = opened(blob)) {
        demand(sealed(*plaintext, blob.first(Cipher::nonceBytes)) == toBytes(blob), "what opens was sealed so");
    }
}

void openDamaged(std::size_t sizeChange, ByteView over) {
    const Bytes genuine = sealed(asBytes(R"({"peer_hostname":"phone"})"), Bytes(Cipher::nonceBytes, std::byte{2}));
    Bytes blob = genuine;
    if (sizeChange >= 128) {
        blob.resize(blob.size() + (256 - sizeChange));
    } else {
        blob.resize(blob.size() - std::min(blob.size(), sizeChange));
    }
    for (std::size_t i = 0; i < std::min(over.size(), blob.size()); ++i) {
        blob[i] ^= over[i];
    }
    demand(opened(blob).has_value() == (blob == genuine), "exactly the genuine blob opens");
}

void sealAnything(ByteView plaintext) {
    const Bytes blob = PairCrypto::sealIntroduction(plaintext, fixedKey());
    demand(blob.size() == plaintext.size() + PairCrypto::overheadBytes, "sealing adds 28 bytes");
    demand(opened(blob) == toBytes(plaintext), "what was sealed opens");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    const bool isDamage = (input.byte() & 1) != 0;
    const std::size_t sizeChange = input.byte();
    const ByteView rest = input.rest();
    if (isDamage) {
        openDamaged(sizeChange, rest);
    } else {
        openAnything(rest);
        sealAnything(rest);
    }
    return 0;
}
