#pragma once

#include "base/Bytes.h"
#include "base/CaseError.h"
#include "platform/Crypto.h"

#include <functional>
#include <optional>
#include <utility>

/// The Noise Protocol Framework (revision 34), pattern XX, suite Noise_XX_25519_ChaChaPoly_SHA256.
///
///     message 1   initiator → responder   e
///     message 2   responder → initiator   e, ee, s, es
///     message 3   initiator → responder   s, se
///
/// Plain objects that turn bytes into bytes; who carries them is HandshakeExchange's business.
/// None of them is thread-safe.
namespace orlinth {

enum class NoiseRole { initiator, responder };

/// "initiator" or "responder".
[[nodiscard]] std::string_view name(NoiseRole role) noexcept;

class NoiseError : public CaseError<NoiseError> {
public:
    enum class Case { wrongStep, messageTooShort, decrypt, malformedKeyMaterial, notComplete, alreadyComplete };

    /// `op` is "writeMessage" or "readMessage".
    [[nodiscard]] static NoiseError wrongStep(NoiseRole role, int step, std::string_view op);
    [[nodiscard]] static NoiseError messageTooShort(std::size_t expected, std::size_t actual);
    [[nodiscard]] static NoiseError decrypt(const std::string& text);
    [[nodiscard]] static NoiseError malformedKeyMaterial(const std::string& text);
    [[nodiscard]] static NoiseError notComplete();
    [[nodiscard]] static NoiseError alreadyComplete();

    /// Of wrongStep: who was asked, at which step, and for what ("writeMessage", "readMessage").
    [[nodiscard]] NoiseRole role() const noexcept { return role_; }
    [[nodiscard]] int step() const noexcept { return step_; }
    [[nodiscard]] const std::string& op() const noexcept { return op_; }
    /// Of messageTooShort, in bytes.
    [[nodiscard]] std::size_t expected() const noexcept { return expected_; }
    [[nodiscard]] std::size_t actual() const noexcept { return actual_; }

private:
    NoiseError(Case which, const std::string& prefix, const std::string& detail = {})
        : CaseError(which, prefix, detail) {}
    NoiseRole role_ = NoiseRole::initiator;
    int step_ = 0;
    std::string op_;
    std::size_t expected_ = 0;
    std::size_t actual_ = 0;
};

/// HKDF of Noise (rev. 34 §4.3): RFC 5869 with salt `ck` and empty info, cut into `numOutputs` pieces of 32 bytes.
[[nodiscard]] std::vector<SecretBytes> noiseHKDF(ByteView ck, ByteView ikm, std::size_t numOutputs);

/// One direction's key and message counter (rev. 34 §5.1). Without a key it is the identity and does not count.
/// Counting past 2^64 − 1 ends the process: no session comes near it.
class CipherState {
public:
    static constexpr std::size_t tagBytes = platform::ChaCha20Poly1305::tagBytes;

    CipherState() noexcept = default;
    /// `nonce` is the counter of the first message; a session begins at 0.
    explicit CipherState(const SecretBytes& key, std::uint64_t nonce = 0);

    [[nodiscard]] bool hasKey() const noexcept { return key_.has_value(); }
    /// The counter of the next message.
    [[nodiscard]] std::uint64_t nonce() const noexcept { return nonce_; }

    /// Ciphertext and tag. @throws platform::CryptoError
    [[nodiscard]] Bytes encryptWithAD(ByteView plaintext, ByteView ad);
    /// @throws NoiseError::messageTooShort below 16 bytes; NoiseError::decrypt where the tag is wrong, with the counter
    ///         unmoved, so that the next genuine message still opens.
    [[nodiscard]] Bytes decryptWithAD(ByteView ciphertext, ByteView ad);

    /// The same where the bytes lie, for a cipher that has its key: `message` is the plaintext followed by 16 bytes of
    /// room for the tag.
    void encryptInPlace(MutableBytes message, ByteView ad);
    /// `message` is ciphertext and tag; returns the plaintext, which is its front.
    [[nodiscard]] MutableBytes decryptInPlace(MutableBytes message, ByteView ad);

private:
    /// Four zero bytes, then the counter in eight bytes, least significant first (rev. 34 §12.3).
    [[nodiscard]] platform::ChaCha20Poly1305::Nonce currentNonce() const noexcept;
    void advance() noexcept;

    std::optional<platform::ChaCha20Poly1305> key_;
    std::uint64_t nonce_ = 0;
};

/// Chaining key, handshake hash and the current cipher (rev. 34 §5.2). Lives inside one handshake.
class SymmetricState {
public:
    /// A name of up to 32 bytes becomes the hash, zero-padded; a longer one is hashed.
    explicit SymmetricState(std::string_view protocolName);

    [[nodiscard]] ByteView h() const noexcept { return h_; }
    [[nodiscard]] ByteView ck() const noexcept { return ck_.reveal(); }
    [[nodiscard]] const CipherState& cipher() const noexcept { return cipher_; }

    void mixHash(ByteView data);
    void mixKey(ByteView ikm);
    [[nodiscard]] Bytes encryptAndHash(ByteView plaintext);
    [[nodiscard]] Bytes decryptAndHash(ByteView ciphertext);
    /// The ciphers from initiator to responder, and from responder to initiator.
    [[nodiscard]] std::pair<CipherState, CipherState> split() const;

private:
    platform::Sha256Digest h_{};
    SecretBytes ck_;
    CipherState cipher_;
};

/// An established session: two directional ciphers and the authenticated key of the other side. Move-only.
///
/// One sending and one receiving task may use it at the same time; never two of a kind.
class NoiseTransport {
public:
    NoiseTransport(platform::Sha256Digest handshakeHash, platform::PublicKey remoteStaticPublicKey,
                   CipherState sendCipher, CipherState receiveCipher) noexcept;

    /// The final handshake hash, a channel binding (rev. 34 §11.2).
    [[nodiscard]] const platform::Sha256Digest& handshakeHash() const noexcept { return handshakeHash_; }
    [[nodiscard]] const platform::PublicKey& remoteStaticPublicKey() const noexcept { return remoteStaticPublicKey_; }

    [[nodiscard]] Bytes encrypt(ByteView plaintext, ByteView ad) { return sendCipher_.encryptWithAD(plaintext, ad); }
    [[nodiscard]] Bytes decrypt(ByteView ciphertext, ByteView ad) {
        return receiveCipher_.decryptWithAD(ciphertext, ad);
    }
    /// Without a copy: see CipherState.
    void encryptInPlace(MutableBytes message, ByteView ad) { sendCipher_.encryptInPlace(message, ad); }
    [[nodiscard]] MutableBytes decryptInPlace(MutableBytes message, ByteView ad) {
        return receiveCipher_.decryptInPlace(message, ad);
    }

private:
    platform::Sha256Digest handshakeHash_;
    platform::PublicKey remoteStaticPublicKey_;
    CipherState sendCipher_;
    CipherState receiveCipher_;
};

/// One run of the XX pattern, from either end.
///
///     initiator   message1 ──write──▶ message2 ──read───▶ message3 ──write──▶ complete
///     responder   message1 ──read───▶ message2 ──write──▶ message3 ──read───▶ complete
///
/// A call that fails leaves the step, but the hash may have taken in part of the message: after any error the handshake
/// is abandoned and the connection closed.
class NoiseHandshake {
public:
    static constexpr std::string_view protocolName = "Noise_XX_25519_ChaChaPoly_SHA256";
    /// Largest message of the framework (rev. 34 §3).
    static constexpr std::size_t maxMessageBytes = 65535;
    /// Where ephemeral keys come from; tests with fixed vectors give their own.
    using KeyGenerator = std::function<platform::PrivateKey()>;

    /// Both sides must give the same prologue, or message 2 does not decrypt.
    NoiseHandshake(NoiseRole role, platform::PrivateKey staticKey, ByteView prologue,
                   KeyGenerator generateEphemeral = platform::PrivateKey::generate);

    /// The next message of this side.
    /// @throws NoiseError::alreadyComplete, wrongStep, notComplete; platform::CryptoError for a low-order remote key.
    [[nodiscard]] Bytes writeMessage(ByteView payload);
    /// Takes in the other side's message and returns its payload.
    /// @throws NoiseError (messageTooShort, decrypt, ... ); platform::CryptoError
    [[nodiscard]] Bytes readMessage(ByteView message);

    [[nodiscard]] bool isComplete() const noexcept { return step_ == Step::complete; }
    [[nodiscard]] ByteView handshakeHash() const noexcept { return symmetric_.h(); }
    /// Known once message 2 (initiator) or 3 (responder) was read. The read has then proved that the other side has the
    /// private key; a session comes of finalize() alone.
    [[nodiscard]] std::optional<platform::PublicKey> remoteStaticPublicKey() const noexcept { return remoteStatic_; }

    /// Turns the finished handshake into the session and uses it up. @throws NoiseError::notComplete
    [[nodiscard]] NoiseTransport finalize() &&;

private:
    /// What comes next; the numbers are those in the text of NoiseError::wrongStep.
    enum class Step {
        message1 = 0, ///< the initiator's ephemeral key
        message2 = 1, ///< the responder's ephemeral key, and its static key, sealed
        message3 = 2, ///< the initiator's static key, sealed
        complete = 3  ///< nothing: both have proved their keys, and finalize() may be called
    };

    /// @throws NoiseError::alreadyComplete; wrongStep unless it is this side's turn to do `op`
    void requireTurn(NoiseRole writer, std::string_view op) const;
    void advance() noexcept;
    [[nodiscard]] NoiseRole other() const noexcept;
    void writeE(Bytes& out);
    void readE(ByteView message, std::size_t& cursor);
    [[nodiscard]] Bytes readEncrypted(ByteView message, std::size_t& cursor, std::size_t plaintextLen);
    void readS(ByteView message, std::size_t& cursor);
    void mixDH_ee();
    void mixDH_es();
    void mixDH_se();

    NoiseRole role_;
    platform::PrivateKey staticKey_;
    KeyGenerator generateEphemeral_;
    std::optional<platform::PrivateKey> ephemeralKey_;
    std::optional<platform::PublicKey> remoteEphemeral_;
    std::optional<platform::PublicKey> remoteStatic_;
    SymmetricState symmetric_;
    Step step_ = Step::message1;
};

} // namespace orlinth
