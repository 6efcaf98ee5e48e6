#include "platform/Crypto.h"
#include "platform/linux/OpenSsl.h"

#include <openssl/core_names.h>

#include <memory>
#include <string>
#include <utility>

namespace orlinth::platform {
namespace {

constexpr int leastBits = 2048;

using detail::DecoderPtr;
using detail::DigestContextPtr;
using detail::KeyPtr;
using detail::octetsOf;

[[noreturn]] void fail() {
    detail::throwOpenSslError("unknown");
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
