#include "base/Base64.h"
#include "base/Uuid.h"
#include "platform/Crypto.h"
#include "platform/linux/OpenSsl.h"

#include <openssl/core_names.h>
#include <openssl/rand.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <sys/random.h>
#include <system_error>
#include <utility>

namespace orlinth::platform {

namespace {

using detail::CipherContextPtr;
using detail::CipherPtr;
using detail::DigestContextPtr;
using detail::DigestPtr;
using detail::KdfContextPtr;
using detail::KdfPtr;
using detail::KeyContextPtr;
using detail::KeyPtr;
using detail::octetsOf;

[[noreturn]] void fail() {
    detail::throwOpenSslError("the cryptographic library gave no reason");
}

void check(int result) {
    if (result <= 0) {
        fail();
    }
}

template <typename Pointer>
Pointer checked(Pointer pointer) {
    if (!pointer) {
        fail();
    }
    return pointer;
}

int intSize(ByteView bytes) {
    if (bytes.size() > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
        throw CryptoError("more than 2 GiB at once");
    }
    return static_cast<int>(bytes.size());
}

/// The algorithms, looked up once: a lookup by name costs more than hashing a short message does.
struct Algorithms {
    CipherPtr chaCha20Poly1305 = checked(CipherPtr(EVP_CIPHER_fetch(nullptr, "ChaCha20-Poly1305", nullptr)));
    DigestPtr sha256 = checked(DigestPtr(EVP_MD_fetch(nullptr, "SHA256", nullptr)));
    KdfPtr hkdf = checked(KdfPtr(EVP_KDF_fetch(nullptr, "HKDF", nullptr)));
};

/// Shared by the whole process: it never changes after it was made, and its parts are counted atomically.
const Algorithms& algorithms() {
    static const Algorithms instance;
    return instance;
}

} // namespace

/// From the kernel, not from the library: that keeps a generator for each thread, and frees it when the thread ends.
/// One of a pool that nobody joins does so while the process exits, and the library with it.
void randomBytes(MutableBytes into) {
    while (!into.empty()) {
        const ssize_t got = ::getrandom(into.data(), into.size(), 0);
        if (got < 0 && errno != EINTR) {
            throw CryptoError("no random bytes: " + std::generic_category().message(errno));
        }
        into = into.subspan(static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    }
}

std::string randomUuidText() {
    std::array<std::byte, 16> random{};
    randomBytes(random);
    return uuidText(random);
}

// --- SHA-256 ---

struct Sha256::Context {
    DigestContextPtr digest = checked(DigestContextPtr(EVP_MD_CTX_new()));

    void start() { check(EVP_DigestInit_ex2(digest.get(), algorithms().sha256.get(), nullptr)); }
};

Sha256::Sha256() : context_(std::make_unique<Context>()) {
    context_->start();
}
Sha256::Sha256(Sha256&&) noexcept = default;
Sha256& Sha256::operator=(Sha256&&) noexcept = default;
Sha256::~Sha256() = default;

void Sha256::update(ByteView bytes) {
    check(EVP_DigestUpdate(context_->digest.get(), octetsOf(bytes), bytes.size()));
}

Sha256Digest Sha256::finish() {
    Sha256Digest digest;
    check(EVP_DigestFinal_ex(context_->digest.get(), octetsOf(MutableBytes(digest)), nullptr));
    context_->start();
    return digest;
}

Sha256Digest sha256(std::initializer_list<ByteView> pieces) {
    Sha256 hash;
    for (const ByteView piece : pieces) {
        hash.update(piece);
    }
    return hash.finish();
}

// --- HKDF ---

SecretBytes hkdfSha256(ByteView salt, ByteView inputKey, ByteView info, std::size_t length) {
    if (length == 0) {
        return {};
    }
    const KdfContextPtr context = checked(KdfContextPtr(EVP_KDF_CTX_new(algorithms().hkdf.get())));
    // The interface takes inputs through pointers to non-const, and does not write through them.
    const auto parameter = [](const char* key, ByteView bytes) {
        return OSSL_PARAM_construct_octet_string(key, const_cast<unsigned char*>(octetsOf(bytes)), bytes.size());
    };
    std::string digestName = "SHA256";
    const std::array parameters{
        OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digestName.data(), 0),
        parameter(OSSL_KDF_PARAM_SALT, salt),
        parameter(OSSL_KDF_PARAM_KEY, inputKey),
        parameter(OSSL_KDF_PARAM_INFO, info),
        OSSL_PARAM_construct_end(),
    };
    SecretBytes output(length);
    check(EVP_KDF_derive(context.get(), octetsOf(output.revealMutable()), length, parameters.data()));
    return output;
}

// --- X25519 ---

PublicKey::PublicKey(std::span<const std::byte, size> raw) noexcept {
    std::ranges::copy(raw, raw_.begin());
}

std::optional<PublicKey> PublicKey::fromBytes(ByteView raw) noexcept {
    if (raw.size() != size) {
        return std::nullopt;
    }
    return PublicKey(raw.first<size>());
}

std::optional<PublicKey> PublicKey::fromBase64(std::string_view text) {
    const std::optional<Bytes> raw = base64Decode(text);
    return raw ? fromBytes(*raw) : std::nullopt;
}

std::string PublicKey::base64() const {
    return base64Encode(raw_);
}

struct PrivateKey::Handle {
    KeyPtr key;
};

PrivateKey::PrivateKey(SecretBytes raw, std::unique_ptr<Handle> handle, PublicKey publicKey) noexcept
    : raw_(std::move(raw)), handle_(std::move(handle)), publicKey_(publicKey) {}
PrivateKey::PrivateKey(PrivateKey&&) noexcept = default;
PrivateKey& PrivateKey::operator=(PrivateKey&&) noexcept = default;
PrivateKey::~PrivateKey() = default;

PrivateKey PrivateKey::generate() {
    SecretBytes raw(size);
    check(RAND_priv_bytes(octetsOf(raw.revealMutable()), static_cast<int>(size)));
    return fromRaw(raw.reveal());
}

PrivateKey PrivateKey::fromRaw(ByteView raw) {
    if (raw.size() != size) {
        throw CryptoError("a private key has 32 bytes, not " + std::to_string(raw.size()));
    }
    auto handle = std::make_unique<Handle>();
    handle->key = checked(KeyPtr(EVP_PKEY_new_raw_private_key_ex(nullptr, "X25519", nullptr, octetsOf(raw), size)));
    std::array<std::byte, size> publicRaw{};
    std::size_t publicSize = publicRaw.size();
    check(EVP_PKEY_get_raw_public_key(handle->key.get(), octetsOf(MutableBytes(publicRaw)), &publicSize));
    return {SecretBytes(raw), std::move(handle), PublicKey(publicRaw)};
}

PrivateKey PrivateKey::clone() const {
    check(EVP_PKEY_up_ref(handle_->key.get()));
    auto handle = std::make_unique<Handle>(KeyPtr(handle_->key.get()));
    return {SecretBytes(raw_.reveal()), std::move(handle), publicKey_};
}

SecretBytes PrivateKey::agree(const PublicKey& peer) const {
    const KeyPtr peerKey = checked(
        KeyPtr(EVP_PKEY_new_raw_public_key_ex(nullptr, "X25519", nullptr, octetsOf(peer.raw()), peer.raw().size())));
    const KeyContextPtr context =
        checked(KeyContextPtr(EVP_PKEY_CTX_new_from_pkey(nullptr, handle_->key.get(), nullptr)));
    check(EVP_PKEY_derive_init(context.get()));
    // Every 32 bytes are a public key of X25519 (RFC 7748 §5), so checking the peer's would only cost time.
    check(EVP_PKEY_derive_set_peer_ex(context.get(), peerKey.get(), 0));
    SecretBytes shared(size);
    std::size_t length = size;
    check(EVP_PKEY_derive(context.get(), octetsOf(shared.revealMutable()), &length));
    return shared;
}

// --- ChaCha20-Poly1305 ---

struct ChaCha20Poly1305::Context {
    CipherContextPtr cipher = checked(CipherContextPtr(EVP_CIPHER_CTX_new()));

    /// Starts one message under the key that is already there: only nonce and direction are new.
    void start(const Nonce& nonce, ByteView ad, bool sealing) {
        check(EVP_CipherInit_ex2(cipher.get(), nullptr, nullptr, octetsOf(ByteView(nonce)), sealing ? 1 : 0, nullptr));
        int count = 0;
        if (!ad.empty()) {
            check(EVP_CipherUpdate(cipher.get(), nullptr, &count, octetsOf(ad), intSize(ad)));
        }
    }

    void transform(MutableBytes bytes) {
        int count = 0;
        if (!bytes.empty()) {
            check(EVP_CipherUpdate(cipher.get(), octetsOf(bytes), &count, octetsOf(bytes), intSize(bytes)));
        }
    }

    /// Ends the message; false where the tag of an opened one is wrong.
    [[nodiscard]] bool finish() {
        int count = 0;
        unsigned char none = 0; // a stream cipher has nothing left to write
        return EVP_CipherFinal_ex(cipher.get(), &none, &count) > 0;
    }
};

ChaCha20Poly1305::ChaCha20Poly1305(std::span<const std::byte, keyBytes> key) : context_(std::make_unique<Context>()) {
    check(EVP_CipherInit_ex2(context_->cipher.get(), algorithms().chaCha20Poly1305.get(), octetsOf(ByteView(key)),
                             nullptr, 1, nullptr));
}
ChaCha20Poly1305::ChaCha20Poly1305(ChaCha20Poly1305&&) noexcept = default;
ChaCha20Poly1305& ChaCha20Poly1305::operator=(ChaCha20Poly1305&&) noexcept = default;
ChaCha20Poly1305::~ChaCha20Poly1305() = default;

void ChaCha20Poly1305::seal(const Nonce& nonce, ByteView ad, MutableBytes bytes, std::span<std::byte, tagBytes> tag) {
    context_->start(nonce, ad, true);
    context_->transform(bytes);
    if (!context_->finish()) {
        fail();
    }
    check(EVP_CIPHER_CTX_ctrl(context_->cipher.get(), EVP_CTRL_AEAD_GET_TAG, static_cast<int>(tagBytes), tag.data()));
}

bool ChaCha20Poly1305::open(const Nonce& nonce, ByteView ad, MutableBytes bytes,
                            std::span<const std::byte, tagBytes> tag) {
    context_->start(nonce, ad, false);
    // The call takes a pointer to non-const for both directions; here it only reads.
    check(EVP_CIPHER_CTX_ctrl(context_->cipher.get(), EVP_CTRL_AEAD_SET_TAG, static_cast<int>(tagBytes),
                              const_cast<std::byte*>(tag.data())));
    context_->transform(bytes);
    if (context_->finish()) {
        return true;
    }
    ERR_clear_error();
    std::ranges::fill(bytes, std::byte{0}); // nobody may act on a plaintext that nobody vouches for
    return false;
}

} // namespace orlinth::platform
