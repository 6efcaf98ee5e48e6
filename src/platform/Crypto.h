#pragma once

#include "base/Bytes.h"
#include "base/Error.h"
#include "base/SecretBytes.h"
#include "base/StrongText.h"

#include <array>
#include <memory>
#include <optional>

/// The primitives of cryptography, over the system's library. Algorithms are fetched once a process, contexts reused.
namespace orlinth::platform {

/// The cryptographic library refused, in its own words.
class CryptoError : public Error {
public:
    explicit CryptoError(std::string text) : Error(std::move(text)) {}
};

/// Fills `into` from the system's cryptographic generator. @throws CryptoError
void randomBytes(MutableBytes into);

/// The text of a fresh random UUID, upper-case.
[[nodiscard]] std::string randomUuidText();

inline constexpr std::size_t sha256Bytes = 32;
using Sha256Digest = std::array<std::byte, sha256Bytes>;

/// SHA-256 (FIPS 180-4), fed piece by piece.
class Sha256 {
public:
    Sha256();
    Sha256(Sha256&&) noexcept;
    Sha256& operator=(Sha256&&) noexcept;
    ~Sha256();
    void update(ByteView data);
    /// The digest of everything fed; the object starts anew.
    [[nodiscard]] Sha256Digest finish();

private:
    struct Context;
    std::unique_ptr<Context> context_;
};

[[nodiscard]] Sha256Digest sha256(std::initializer_list<ByteView> pieces);

/// HKDF with SHA-256 (RFC 5869), extract and expand. `length` at most 255 × 32 bytes. @throws CryptoError
[[nodiscard]] SecretBytes hkdfSha256(ByteView salt, ByteView inputKey, ByteView info, std::size_t length);

/// A public key of X25519 (RFC 7748): 32 raw bytes. Equality is of the bytes and not in constant time.
class PublicKey {
public:
    static constexpr std::size_t size = 32;

    explicit PublicKey(std::span<const std::byte, size> raw) noexcept;
    /// Nothing unless there are exactly 32 bytes.
    [[nodiscard]] static std::optional<PublicKey> fromBytes(ByteView raw) noexcept;
    /// From standard Base64, 44 characters; nothing where the text is not one.
    [[nodiscard]] static std::optional<PublicKey> fromBase64(std::string_view text);

    [[nodiscard]] std::span<const std::byte, size> raw() const noexcept { return raw_; }
    [[nodiscard]] std::string base64() const;
    /// base64(), as what a device is known by.
    [[nodiscard]] PeerKey peerKey() const { return PeerKey(base64()); }
    [[nodiscard]] bool operator==(const PublicKey&) const noexcept = default;

private:
    std::array<std::byte, size> raw_{};
};

/// A private key of X25519, the static one of a computer or the ephemeral one of a handshake. Move-only; wiped.
class PrivateKey {
public:
    static constexpr std::size_t size = 32;

    /// A fresh random key. @throws CryptoError
    [[nodiscard]] static PrivateKey generate();
    /// @throws CryptoError unless there are exactly 32 bytes.
    [[nodiscard]] static PrivateKey fromRaw(ByteView raw);
    PrivateKey(PrivateKey&&) noexcept;
    PrivateKey& operator=(PrivateKey&&) noexcept;
    ~PrivateKey();

    [[nodiscard]] const PublicKey& publicKey() const noexcept { return publicKey_; }
    /// A second object of the same key, for an owner with a life of its own.
    [[nodiscard]] PrivateKey clone() const;
    /// The raw scalar, for storing it.
    [[nodiscard]] ByteView reveal() const noexcept { return raw_.reveal(); }
    /// X25519. @throws CryptoError where the result is all zero: the peer's key is a point of low order
    ///         (RFC 7748 §6.1).
    [[nodiscard]] SecretBytes agree(const PublicKey& peer) const;

private:
    struct Handle;
    PrivateKey(SecretBytes raw, std::unique_ptr<Handle> handle, PublicKey publicKey) noexcept;
    SecretBytes raw_;
    std::unique_ptr<Handle> handle_;
    PublicKey publicKey_;
};

/// A private key of RSA, for signatures only.
class RsaPrivateKey {
public:
    /// From the DER of a PKCS#1 RSAPrivateKey (RFC 8017 §A.1.2), of 2048 bits or more. @throws CryptoError
    [[nodiscard]] static RsaPrivateKey fromPkcs1(ByteView der);
    RsaPrivateKey(RsaPrivateKey&&) noexcept;
    RsaPrivateKey& operator=(RsaPrivateKey&&) noexcept;
    ~RsaPrivateKey();

    /// RSASSA-PKCS1-v1_5 with SHA-256 over `data` (RFC 8017 §8.2; "RS256" of RFC 7518). @throws CryptoError
    [[nodiscard]] Bytes signSha256(ByteView data) const;

private:
    struct Handle;
    explicit RsaPrivateKey(std::unique_ptr<Handle> handle) noexcept;
    std::unique_ptr<Handle> handle_;
};

/// ChaCha20-Poly1305 (RFC 8439 §2.8) under one key: 12-byte nonce, 16-byte tag. Works in place, without allocating.
/// Not thread-safe; move-only.
class ChaCha20Poly1305 {
public:
    static constexpr std::size_t keyBytes = 32;
    static constexpr std::size_t nonceBytes = 12;
    static constexpr std::size_t tagBytes = 16;
    using Nonce = std::array<std::byte, nonceBytes>;

    /// Copies the key into the cipher's own memory, which is wiped with it. @throws CryptoError
    explicit ChaCha20Poly1305(std::span<const std::byte, keyBytes> key);
    ChaCha20Poly1305(ChaCha20Poly1305&&) noexcept;
    ChaCha20Poly1305& operator=(ChaCha20Poly1305&&) noexcept;
    ~ChaCha20Poly1305();

    /// Encrypts `data` where it lies and writes its tag. @throws CryptoError
    void seal(const Nonce& nonce, ByteView ad, MutableBytes data, std::span<std::byte, tagBytes> tag);
    /// Checks `tag` and decrypts `data` where it lies. Returns false, with `data` zeroed, where the tag is wrong.
    [[nodiscard]] bool open(const Nonce& nonce, ByteView ad, MutableBytes data,
                            std::span<const std::byte, tagBytes> tag);

private:
    struct Context;
    std::unique_ptr<Context> context_;
};

} // namespace orlinth::platform
