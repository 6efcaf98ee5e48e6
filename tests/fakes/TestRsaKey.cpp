#include "fakes/TestRsaKey.h"

#include "base/Json.h"

#include <openssl/evp.h>
#include <openssl/pem.h>

#include <memory>
#include <stdexcept>

namespace orlinth::fakes {
namespace {

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using Memory = std::unique_ptr<BIO, decltype(&BIO_free)>;

std::string textOf(BIO* memory) {
    char* data = nullptr;
    const long size = BIO_get_mem_data(memory, &data);
    return {data, static_cast<std::size_t>(size)};
}

TestRsaKey make() {
    const Key key(EVP_RSA_gen(2048), &EVP_PKEY_free);
    const Memory privatePem(BIO_new(BIO_s_mem()), &BIO_free);
    const Memory publicPem(BIO_new(BIO_s_mem()), &BIO_free);
    if (!key ||
        PEM_write_bio_PKCS8PrivateKey(privatePem.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1 ||
        PEM_write_bio_PUBKEY(publicPem.get(), key.get()) != 1) {
        throw std::runtime_error("no RSA key could be made");
    }
    return {.privatePem = textOf(privatePem.get()), .publicPem = textOf(publicPem.get())};
}

} // namespace

const TestRsaKey& TestRsaKey::shared() {
    static const TestRsaKey key = make();
    return key;
}

bool TestRsaKey::verifies(const std::string& data, const std::string& signature) const {
    const Memory memory(BIO_new_mem_buf(publicPem.data(), static_cast<int>(publicPem.size())), &BIO_free);
    const Key key(PEM_read_bio_PUBKEY(memory.get(), nullptr, nullptr, nullptr), &EVP_PKEY_free);
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
    return key && EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr, key.get()) == 1 &&
           EVP_DigestVerify(context.get(), reinterpret_cast<const unsigned char*>(signature.data()), signature.size(),
                            reinterpret_cast<const unsigned char*>(data.data()), data.size()) == 1;
}

std::string serviceAccountJson(const TestRsaKey& key, const std::string& tokenUri) {
    return compactJson(Json{{"type", "service_account"},
                            {"project_id", "orlinth-test"},
                            {"private_key", key.privatePem},
                            {"private_key_id", "key-1"},
                            {"client_email", "push@orlinth-test.example"},
                            {"token_uri", tokenUri}});
}

} // namespace orlinth::fakes
