#pragma once

#include "base/Bytes.h"
#include "platform/Crypto.h"
#include "platform/linux/Freer.h"

#include <openssl/decoder.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>

#include <memory>
#include <string>
#include <utility>

/// OpenSSL's objects with owners, its bytes, and its errors.
namespace orlinth::platform::detail {

using CipherPtr = std::unique_ptr<EVP_CIPHER, Freer<EVP_CIPHER_free>>;
using CipherContextPtr = std::unique_ptr<EVP_CIPHER_CTX, Freer<EVP_CIPHER_CTX_free>>;
using DecoderPtr = std::unique_ptr<OSSL_DECODER_CTX, Freer<OSSL_DECODER_CTX_free>>;
using DigestPtr = std::unique_ptr<EVP_MD, Freer<EVP_MD_free>>;
using DigestContextPtr = std::unique_ptr<EVP_MD_CTX, Freer<EVP_MD_CTX_free>>;
using KdfPtr = std::unique_ptr<EVP_KDF, Freer<EVP_KDF_free>>;
using KdfContextPtr = std::unique_ptr<EVP_KDF_CTX, Freer<EVP_KDF_CTX_free>>;
using KeyPtr = std::unique_ptr<EVP_PKEY, Freer<EVP_PKEY_free>>;
using KeyContextPtr = std::unique_ptr<EVP_PKEY_CTX, Freer<EVP_PKEY_CTX_free>>;

/// Throws the library's own reason for the call that has just failed, or `withoutReason`, and leaves its error queue
/// empty: an old entry would be taken for the reason of a later failure. @throws CryptoError always
[[noreturn]] inline void throwOpenSslError(const char* withoutReason) {
    const unsigned long code = ERR_peek_error();
    const char* const reason = code == 0 ? nullptr : ERR_reason_error_string(code);
    std::string text = reason != nullptr ? reason : withoutReason;
    ERR_clear_error();
    throw CryptoError(std::move(text));
}

/// OpenSSL reads bytes as unsigned char, and takes a null pointer for "not given" even where the length is zero.
[[nodiscard]] inline const unsigned char* octetsOf(ByteView bytes) noexcept {
    static constexpr unsigned char nothing = 0;
    return bytes.empty() ? &nothing : reinterpret_cast<const unsigned char*>(bytes.data());
}

[[nodiscard]] inline unsigned char* octetsOf(MutableBytes bytes) noexcept {
    return reinterpret_cast<unsigned char*>(bytes.data());
}

} // namespace orlinth::platform::detail
