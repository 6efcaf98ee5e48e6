#include "platform/Crypto.h"

#include <openssl/core_names.h>
#include <openssl/decoder.h>
#include <openssl/err.h>
#include <openssl/evp.h>

#include <memory>
#include <string>
#include <utility>

namespace orlinth::platform {
namespace {

constexpr int leastBits = 2048;

template <auto free>
struct Freer {
    template <typename T>
    void operator()(T* object) const noexcept {
        free(object);
    }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, Freer<EVP_PKEY_free>>;
using DecoderPtr = std::unique_ptr<OSSL_DECODER_CTX, Freer<OSSL_DECODER_CTX_free>>;
using DigestContextPtr = std::unique_ptr<EVP_MD_CTX, Freer<EVP_MD_CTX_free>>;

/// Throws the library's own reason for the call that has just failed, and leaves its error queue empty.
[[noreturn]] void fail() {
    const unsigned long code = ERR_peek_error();
    const char* reason = code == 0 ? nullptr : ERR_reason_error_string(code);
    std::string text = reason != nullptr ? reason : "unknown";
    ERR_clear_error();
    throw CryptoError(std::move(text));
}

const unsigned char* octetsOf(ByteView bytes) noexcept {
    static constexpr unsigned char nothing = 0;
    return bytes.empty() ? &nothing : reinterpret_cast<const unsigned char*>(bytes.data());
}

} // namespace

struct RsaPrivateKey::Handle {
    KeyPtr key;
};

RsaPrivateKey::RsaPrivateKey(std::unique_ptr<Handle> handle) noexcept : handle_(std::move(handle)) {}
RsaPrivateKey::RsaPrivateKey(RsaPrivateKey&&) noexcept = default;
RsaPrivateKey& RsaPrivateKey::operator=(RsaPrivateKey&&) noexcept = default;
RsaPrivateKey::~RsaPrivateKey() = default;

RsaPrivateKey RsaPrivateKey::fromPkcs1(ByteView der) {
    EVP_PKEY* decoded = nullptr;
    // "type-specific" is PKCS#1.
    const DecoderPtr decoder(OSSL_DECODER_CTX_new_for_pkey(&decoded, "DER", "type-specific", "RSA",
                                                           OSSL_KEYMGMT_SELECT_PRIVATE_KEY, nullptr, nullptr));
    const unsigned char* data = octetsOf(der);
    std::size_t left = der.size();
    const bool ok = decoder && OSSL_DECODER_from_data(decoder.get(), &data, &left) == 1;
    auto handle = std::make_unique<Handle>(Handle{KeyPtr(decoded)});
    if (!ok || decoded == nullptr) {
        fail();
    }
    if (left != 0) {
        throw CryptoError(std::to_string(left) + " bytes behind the RSA key");
    }
    const int bits = EVP_PKEY_get_bits(decoded);
    if (bits < leastBits) {
        throw CryptoError("the RSA key has " + std::to_string(bits) + " bits, fewer than " + std::to_string(leastBits));
    }
    return RsaPrivateKey(std::move(handle));
}

Bytes RsaPrivateKey::signSha256(ByteView data) const {
    const DigestContextPtr context(EVP_MD_CTX_new());
    // The padding is PKCS#1 v1.5 unless told otherwise.
    if (!context ||
        EVP_DigestSignInit_ex(context.get(), nullptr, "SHA256", nullptr, nullptr, handle_->key.get(), nullptr) != 1) {
        fail();
    }
    std::size_t size = 0;
    if (EVP_DigestSign(context.get(), nullptr, &size, octetsOf(data), data.size()) != 1) {
        fail();
    }
    Bytes signature(size);
    if (EVP_DigestSign(context.get(), reinterpret_cast<unsigned char*>(signature.data()), &size, octetsOf(data),
                       data.size()) != 1) {
        fail();
    }
    signature.resize(size);
    return signature;
}

} // namespace orlinth::platform
