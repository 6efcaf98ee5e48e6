#include "OrlinthCore/Pairing/PairCrypto.h"

#include "base/Endian.h"
#include "base/Precondition.h"

#include <algorithm>

namespace orlinth {
namespace {

using Cipher = platform::ChaCha20Poly1305;

/// The cipher has memory of its own for the key, which it wipes.
Cipher cipherOf(const SecretBytes& key) {
    if (key.size() != Cipher::keyBytes) {
        preconditionFailed("an introduction's key has 32 bytes");
    }
    return Cipher(key.reveal().first<Cipher::keyBytes>());
}

} // namespace

PairCrypto::Error PairCrypto::Error::open(const std::string& text) {
    return {Case::open, "ChaChaPoly.open failed: ", text};
}

PairCrypto::Error PairCrypto::Error::ciphertextTooShort() {
    return {Case::ciphertextTooShort, "wire ciphertext < 16-byte tag"};
}

SecretBytes PairCrypto::deriveAEADKey(ByteView pairingSecret) {
    return platform::hkdfSha256({}, pairingSecret, asBytes(aeadInfo), Cipher::keyBytes);
}

Bytes PairCrypto::sealIntroduction(ByteView plaintext, const SecretBytes& key) {
    Cipher cipher = cipherOf(key);
    Cipher::Nonce nonce{};
    platform::randomBytes(nonce);
    Bytes blob(plaintext.size() + overheadBytes);
    std::ranges::copy(nonce, blob.begin());
    const MutableBytes text = MutableBytes(blob).subspan(nonce.size(), plaintext.size());
    std::ranges::copy(plaintext, text.begin());
    cipher.seal(nonce, {}, text, MutableBytes(blob).last<Cipher::tagBytes>());
    return blob;
}

Bytes PairCrypto::openIntroduction(ByteView wireBlob, const SecretBytes& key) {
    if (wireBlob.size() < overheadBytes) {
        throw Error::ciphertextTooShort();
    }
    Cipher cipher = cipherOf(key);
    Cipher::Nonce nonce{};
    std::ranges::copy(wireBlob.first<Cipher::nonceBytes>(), nonce.begin());
    Bytes text = toBytes(wireBlob.subspan(nonce.size(), wireBlob.size() - overheadBytes));
    bool isGenuine = false;
    try {
        isGenuine = cipher.open(nonce, {}, text, wireBlob.last<Cipher::tagBytes>());
    } catch (const platform::CryptoError& error) {
        throw Error::open(error.description());
    }
    if (!isGenuine) {
        throw Error::open("authentication failed");
    }
    return text;
}

std::string PairCrypto::confirmationCode(ByteView pairingSecret, const platform::PublicKey& macPubkey,
                                         const platform::PublicKey& phonePubkey, ByteView phoneIntroPlaintext) {
    const Bytes salt = concatenate({macPubkey.raw(), phonePubkey.raw(), phoneIntroPlaintext});
    constexpr std::size_t numberBytes = 4;
    const SecretBytes number = platform::hkdfSha256(salt, pairingSecret, asBytes(confirmInfo), numberBytes);
    return fourDigits(loadBigEndian32(number.reveal().first<numberBytes>()));
}

std::string PairCrypto::fourDigits(std::uint32_t number) {
    constexpr std::uint32_t codes = 10000;
    return std::to_string(codes + number % codes).substr(1);
}

} // namespace orlinth
