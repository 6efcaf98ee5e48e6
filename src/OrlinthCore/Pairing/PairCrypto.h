#pragma once

#include "base/CaseError.h"
#include "base/SecretBytes.h"
#include "platform/Crypto.h"

#include <string>
#include <string_view>

namespace orlinth {

/// The cryptography of an introduction: sealed under a key that only holders of the pairing secret can derive, and a
/// code of four digits that both screens show. Apart from the channel of the transfers; plain functions.
class PairCrypto {
public:
    class Error;

    /// HKDF's info texts (RFC 5869 §2.3).
    static constexpr std::string_view aeadInfo = "orlinth.pair.aead.v1";
    static constexpr std::string_view confirmInfo = "orlinth.pair.confirm.v1";
    /// What sealing adds: a 12-byte nonce in front, a 16-byte tag behind.
    static constexpr std::size_t overheadBytes =
        platform::ChaCha20Poly1305::nonceBytes + platform::ChaCha20Poly1305::tagBytes;

    PairCrypto() = delete;

    /// HKDF-SHA256 of the secret's raw bytes, without salt: 32 bytes for ChaCha20-Poly1305.
    [[nodiscard]] static SecretBytes deriveAEADKey(ByteView pairingSecret);
    /// Nonce, ciphertext, tag; the nonce is random, anew in each call; no associated data. `key` has 32 bytes.
    /// @throws platform::CryptoError
    [[nodiscard]] static Bytes sealIntroduction(ByteView plaintext, const SecretBytes& key);
    /// @throws Error::ciphertextTooShort below 28 bytes; open where it was not sealed under this key
    [[nodiscard]] static Bytes openIntroduction(ByteView wireBlob, const SecretBytes& key);
    /// Four decimal digits of HKDF-SHA256 over the secret, salted with the keys and the introduction as it was
    /// received. People compare them; no code does.
    [[nodiscard]] static std::string confirmationCode(ByteView pairingSecret, const platform::PublicKey& macPubkey,
                                                      const platform::PublicKey& phonePubkey,
                                                      ByteView phoneIntroPlaintext);
    /// The last four decimal digits of a number: 7 is "0007".
    [[nodiscard]] static std::string fourDigits(std::uint32_t number);
};

/// What PairCrypto throws.
class PairCrypto::Error : public CaseError<PairCrypto::Error> {
public:
    enum class Case { open, ciphertextTooShort };

    [[nodiscard]] static Error open(const std::string& text);
    [[nodiscard]] static Error ciphertextTooShort();

private:
    Error(Case which, const std::string& prefix, const std::string& detail = {}) : CaseError(which, prefix, detail) {}
};

} // namespace orlinth
