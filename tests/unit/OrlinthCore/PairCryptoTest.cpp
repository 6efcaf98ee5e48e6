#include "OrlinthCore/Pairing/PairCrypto.h"

#include "base/Hex.h"
#include "base/Json.h"

#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <sstream>

using namespace orlinth;
using platform::PublicKey;

namespace {

using Case = PairCrypto::Error::Case;

Bytes bytesOf(const Json& json, const char* key) {
    return hexDecode(requireString(json, key)).value();
}

SecretBytes someKey(char fill = 7) {
    return SecretBytes(Bytes(32, static_cast<std::byte>(fill)));
}

/// How opening ends: "opens", or the case of the error.
std::string verdictOf(ByteView blob, const SecretBytes& key) {
    try {
        static_cast<void>(PairCrypto::openIntroduction(blob, key));
        return "opens";
    } catch (const PairCrypto::Error& error) {
        EXPECT_EQ(error.description(), error.which() == Case::open ? "ChaChaPoly.open failed: authentication failed"
                                                                   : "wire ciphertext < 16-byte tag");
        return error.which() == Case::open ? "open" : "ciphertextTooShort";
    }
}

// --- figures of an independent implementation ---

class PairingVectors : public testing::Test {
protected:
    PairingVectors() {
        std::ifstream file(ORLINTH_TEST_VECTORS "/pairing.json");
        std::stringstream text;
        text << file.rdbuf();
        all_ = parseJson(text.str());
    }
    [[nodiscard]] const Json& cases(const char* kind, std::size_t expectedCount) const {
        EXPECT_EQ(all_.at(kind).size(), expectedCount);
        return all_.at(kind);
    }

private:
    Json all_;
};

TEST_F(PairingVectors, HoldForTheKeyOfIntroductions) {
    for (const Json& vector : cases("derivations", 7)) {
        const SecretBytes key = PairCrypto::deriveAEADKey(bytesOf(vector, "secret"));
        EXPECT_EQ(hexEncode(key.reveal()), requireString(vector, "key")) << vector.at("name");
    }
}

TEST_F(PairingVectors, HoldForOpening) {
    std::size_t good = 0;
    for (const Json& vector : cases("introductions", 24)) {
        const SecretBytes key = PairCrypto::deriveAEADKey(bytesOf(vector, "secret"));
        const Bytes blob = bytesOf(vector, "blob");
        const std::string verdict = requireString(vector, "verdict");
        EXPECT_EQ(verdictOf(blob, key), verdict) << vector.at("name");
        if (verdict == "opens") {
            EXPECT_EQ(PairCrypto::openIntroduction(blob, key), bytesOf(vector, "plaintext")) << vector.at("name");
            ++good;
        }
    }
    EXPECT_EQ(good, 8U);
}

TEST_F(PairingVectors, StayGoodOnlyUndamaged) {
    for (const Json& vector : cases("introductions", 24)) {
        if (requireString(vector, "verdict") != "opens") {
            continue;
        }
        const SecretBytes key = PairCrypto::deriveAEADKey(bytesOf(vector, "secret"));
        Bytes blob = bytesOf(vector, "blob");
        for (std::size_t bit = 0; bit < blob.size() * 8; ++bit) {
            const auto mask = static_cast<std::byte>(1U << (bit % 8));
            blob[bit / 8] ^= mask;
            ASSERT_EQ(verdictOf(blob, key), "open") << vector.at("name") << ": bit " << bit;
            blob[bit / 8] ^= mask;
        }
        for (std::size_t length = 0; length < blob.size(); ++length) {
            ASSERT_EQ(verdictOf(ByteView(blob).first(length), key), length < 28 ? "ciphertextTooShort" : "open")
                << vector.at("name") << ": cut to " << length;
        }
        for (std::size_t more = 1; more <= 40; ++more) {
            blob.push_back(static_cast<std::byte>(more));
            ASSERT_EQ(verdictOf(blob, key), "open") << vector.at("name") << ": longer by " << more;
        }
    }
}

TEST_F(PairingVectors, HoldForTheConfirmationCode) {
    for (const Json& vector : cases("confirmations", 14)) {
        const Bytes piece = bytesOf(vector, "plaintext");
        Bytes plaintext;
        for (std::int64_t i = 0; i < requireInt64(vector, "plaintext_repeated"); ++i) {
            plaintext.insert(plaintext.end(), piece.begin(), piece.end());
        }
        const std::string code = PairCrypto::confirmationCode(
            bytesOf(vector, "secret"), PublicKey::fromBytes(bytesOf(vector, "mac")).value(),
            PublicKey::fromBytes(bytesOf(vector, "phone")).value(), plaintext);
        EXPECT_EQ(code, requireString(vector, "code")) << vector.at("name");
        EXPECT_EQ(PairCrypto::fourDigits(static_cast<std::uint32_t>(requireInt64(vector, "number"))), code);
    }
}

// --- by itself ---

TEST(PairCrypto, OpensWhatItSealed) {
    for (const std::size_t size : {0U, 1U, 15U, 16U, 17U, 63U, 64U, 65U, 1000U, 65508U}) {
        const Bytes plaintext(size, std::byte{0x5A});
        const Bytes blob = PairCrypto::sealIntroduction(plaintext, someKey());
        EXPECT_EQ(blob.size(), size + 28);
        EXPECT_EQ(PairCrypto::openIntroduction(blob, someKey()), plaintext) << size;
    }
}

TEST(PairCrypto, TakesTheSmallestBlobOf28Bytes) {
    const Bytes blob = PairCrypto::sealIntroduction({}, someKey());
    ASSERT_EQ(blob.size(), 28u);
    EXPECT_EQ(PairCrypto::openIntroduction(blob, someKey()), Bytes());
    EXPECT_EQ(verdictOf(ByteView(blob).first(27), someKey()), "ciphertextTooShort");
    EXPECT_EQ(verdictOf({}, someKey()), "ciphertextTooShort");
}

TEST(PairCrypto, SealsTheSameTextDifferentlyEachTime) {
    std::set<Bytes> blobs;
    std::set<Bytes> nonces;
    constexpr std::size_t count = 200;
    for (std::size_t i = 0; i < count; ++i) {
        const Bytes blob = PairCrypto::sealIntroduction(asBytes("hello"), someKey());
        blobs.insert(blob);
        nonces.insert(toBytes(ByteView(blob).first(12)));
    }
    EXPECT_EQ(blobs.size(), count);
    EXPECT_EQ(nonces.size(), count);
}

TEST(PairCrypto, DoesNotShowThePlaintextInTheBlob) {
    const Bytes plaintext(64, std::byte{'a'});
    const Bytes blob = PairCrypto::sealIntroduction(plaintext, someKey());
    EXPECT_EQ(toText(blob).find("aaaa"), std::string::npos);
}

TEST(PairCrypto, OpensNothingUnderAnotherKey) {
    const Bytes blob = PairCrypto::sealIntroduction(asBytes("hello"), someKey());
    EXPECT_EQ(verdictOf(blob, someKey(8)), "open");
}

TEST(PairCrypto, EndsTheProcessForAKeyOfAnotherSize) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_DEATH(static_cast<void>(PairCrypto::sealIntroduction({}, SecretBytes(31))), "32 bytes");
    EXPECT_DEATH(static_cast<void>(PairCrypto::openIntroduction(Bytes(28), SecretBytes())), "32 bytes");
}

TEST(PairCrypto, ShowsTheLastFourDigitsOfANumber) {
    EXPECT_EQ(PairCrypto::fourDigits(0), "0000");
    EXPECT_EQ(PairCrypto::fourDigits(7), "0007");
    EXPECT_EQ(PairCrypto::fourDigits(9999), "9999");
    EXPECT_EQ(PairCrypto::fourDigits(10000), "0000");
    EXPECT_EQ(PairCrypto::fourDigits(123456789), "6789");
    EXPECT_EQ(PairCrypto::fourDigits(4294967295), "7295");
}

TEST(PairCrypto, GivesAnotherCodeForEveryInputThatDiffers) {
    const auto key = [](char fill) { return PublicKey::fromBytes(Bytes(32, static_cast<std::byte>(fill))).value(); };
    const Bytes secret(32, std::byte{1});
    const std::string code = PairCrypto::confirmationCode(secret, key(2), key(3), asBytes("{}"));
    EXPECT_EQ(PairCrypto::confirmationCode(secret, key(2), key(3), asBytes("{}")), code);
    EXPECT_NE(PairCrypto::confirmationCode(Bytes(32, std::byte{9}), key(2), key(3), asBytes("{}")), code);
    EXPECT_NE(PairCrypto::confirmationCode(secret, key(9), key(3), asBytes("{}")), code);
    EXPECT_NE(PairCrypto::confirmationCode(secret, key(2), key(9), asBytes("{}")), code);
    EXPECT_NE(PairCrypto::confirmationCode(secret, key(3), key(2), asBytes("{}")), code);
    EXPECT_NE(PairCrypto::confirmationCode(secret, key(2), key(3), asBytes("{ }")), code);
}

TEST(PairCrypto, HasFixedTextsForItsErrors) {
    EXPECT_EQ(PairCrypto::Error::open("x").description(), "ChaChaPoly.open failed: x");
    EXPECT_EQ(PairCrypto::Error::open("x").which(), Case::open);
    EXPECT_EQ(PairCrypto::Error::ciphertextTooShort().description(), "wire ciphertext < 16-byte tag");
    EXPECT_EQ(PairCrypto::Error::ciphertextTooShort().which(), Case::ciphertextTooShort);
}

TEST(PairCryptoError, HasItsPayload) {
    EXPECT_EQ(PairCrypto::Error::open("why").detail(), "why");
    EXPECT_EQ(PairCrypto::Error::open("why").description(), "ChaChaPoly.open failed: why");
    EXPECT_EQ(PairCrypto::Error::ciphertextTooShort().detail(), "");
}

} // namespace
