#include "base/Base64.h"
#include "fakes/TestRsaKey.h"
#include "platform/Crypto.h"

#include <gmock/gmock.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

namespace orlinth::platform {
namespace {

/// A fresh key, as the DER of PKCS#1.
Bytes pkcs1(unsigned bits) {
    EVP_PKEY* const key = EVP_RSA_gen(bits);
    unsigned char* encoded = nullptr;
    const int size = i2d_PrivateKey(key, &encoded); // for RSA this is PKCS#1
    Bytes der(reinterpret_cast<std::byte*>(encoded), reinterpret_cast<std::byte*>(encoded) + size);
    OPENSSL_free(encoded);
    EVP_PKEY_free(key);
    return der;
}

const Bytes& key2048() {
    static const Bytes der = pkcs1(2048);
    return der;
}

bool verifies(const Bytes& privateDer, ByteView data, const Bytes& signature) {
    const auto* at = reinterpret_cast<const unsigned char*>(privateDer.data());
    EVP_PKEY* const key = d2i_PrivateKey(EVP_PKEY_RSA, nullptr, &at, static_cast<long>(privateDer.size()));
    EVP_MD_CTX* const context = EVP_MD_CTX_new();
    EVP_PKEY_CTX* parameters = nullptr;
    EVP_DigestVerifyInit(context, &parameters, EVP_sha256(), nullptr, key);
    EVP_PKEY_CTX_set_rsa_padding(parameters, RSA_PKCS1_PADDING);
    const int result =
        EVP_DigestVerify(context, reinterpret_cast<const unsigned char*>(signature.data()), signature.size(),
                         reinterpret_cast<const unsigned char*>(data.data()), data.size());
    EVP_MD_CTX_free(context);
    EVP_PKEY_free(key);
    return result == 1;
}

std::string refusal(ByteView der) {
    try {
        static_cast<void>(RsaPrivateKey::fromPkcs1(der));
    } catch (const CryptoError& error) {
        return error.description();
    }
    return "";
}

TEST(RsaPrivateKey, SignsWhatThePublicKeyVerifies) {
    const RsaPrivateKey key = RsaPrivateKey::fromPkcs1(key2048());
    for (const std::string& data : {std::string(), std::string("signing.input"), std::string(100'000, 'x')}) {
        const Bytes signature = key.signSha256(asBytes(data));
        EXPECT_EQ(signature.size(), 256U);
        EXPECT_TRUE(verifies(key2048(), asBytes(data), signature));
        EXPECT_FALSE(verifies(key2048(), asBytes(data + "!"), signature));
        EXPECT_EQ(key.signSha256(asBytes(data)), signature) << "this signature has nothing random in it";
    }
}

TEST(RsaPrivateKey, SignsWithALargerKey) {
    const Bytes der = pkcs1(3072);
    const RsaPrivateKey first = RsaPrivateKey::fromPkcs1(der);
    RsaPrivateKey key = RsaPrivateKey::fromPkcs1(key2048());
    EXPECT_EQ(first.signSha256(asBytes("data")).size(), 384U);
    key = RsaPrivateKey::fromPkcs1(der);
    EXPECT_TRUE(verifies(der, asBytes("data"), key.signSha256(asBytes("data"))));
}

TEST(RsaPrivateKey, RefusesAKeyThatIsTooSmall) {
    EXPECT_EQ(refusal(pkcs1(1024)), "the RSA key has 1024 bits, fewer than 2048");
}

TEST(RsaPrivateKey, RefusesWhatIsNoPkcs1AndSaysWhy) {
    EXPECT_NE(refusal({}), "");
    EXPECT_NE(refusal(asBytes("no key at all")), "");
    for (const std::size_t size : {1U, 2U, 4U, 100U, 600U}) {
        EXPECT_NE(refusal(ByteView(key2048()).first(size)), "") << size;
    }
    EXPECT_NE(refusal(ByteView(key2048()).first(key2048().size() - 1)), "");
}

TEST(RsaPrivateKey, RefusesBytesBehindTheKey) {
    Bytes longer = key2048();
    longer.push_back(std::byte{0});
    EXPECT_EQ(refusal(longer), "1 bytes behind the RSA key");
}

TEST(RsaPrivateKey, LeavesNoOldReasonForALaterFailure) {
    const std::string first = refusal(asBytes("no key at all"));
    static_cast<void>(RsaPrivateKey::fromPkcs1(key2048()));
    EXPECT_EQ(refusal(asBytes("no key at all")), first);
}

} // namespace
} // namespace orlinth::platform
