#include "platform/Crypto.h"

#include "base/Hex.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <set>
#include <thread>

namespace orlinth::platform {
namespace {

Bytes unhex(std::string_view text) {
    return hexDecode(text).value();
}

Bytes counting(int from, int to) {
    Bytes bytes;
    for (int value = from; value <= to; ++value) {
        bytes.push_back(static_cast<std::byte>(value));
    }
    return bytes;
}

PublicKey publicKey(std::string_view hex) {
    return PublicKey::fromBytes(unhex(hex)).value();
}

std::string agreed(std::string_view privateHex, std::string_view publicHex) {
    return hexEncode(PrivateKey::fromRaw(unhex(privateHex)).agree(publicKey(publicHex)).reveal());
}

/// The text of what `action` throws; "" if nothing.
template <typename Action>
std::string cryptoErrorOf(Action action) {
    try {
        action();
    } catch (const CryptoError& error) {
        EXPECT_FALSE(error.description().empty());
        return error.description();
    }
    return "";
}

// --- SHA-256 (FIPS 180-4) ---

TEST(Sha256, MatchesThePublishedDigests) {
    EXPECT_EQ(hexEncode(sha256({})), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(hexEncode(sha256({asBytes("abc")})), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(Sha256, DoesNotCareHowTheDataIsCut) {
    const Bytes data = counting(0, 199);
    const Sha256Digest whole = sha256({data});
    for (std::size_t cut = 0; cut <= data.size(); ++cut) {
        EXPECT_EQ(sha256({ByteView(data).first(cut), ByteView(data).subspan(cut)}), whole) << cut;
    }
}

TEST(Sha256, StartsAnewAfterEachDigest) {
    Sha256 hash;
    hash.update(asBytes("something else"));
    EXPECT_NE(hash.finish(), sha256({asBytes("abc")}));
    hash.update(asBytes("abc"));
    EXPECT_EQ(hash.finish(), sha256({asBytes("abc")}));
}

// --- HKDF (RFC 5869, appendix A) ---

TEST(HkdfSha256, MatchesTheFirstRfcVector) {
    const SecretBytes okm = hkdfSha256(counting(0, 0x0c), Bytes(22, std::byte{0x0b}), counting(0xf0, 0xf9), 42);
    EXPECT_EQ(hexEncode(okm.reveal()),
              "3cb25f25faacd57a90434f64d0362f2a2d2d0a90cf1a5a4c5db02d56ecc4c5bf34007208d5b887185865");
}

TEST(HkdfSha256, MatchesTheRfcVectorOfLongInputs) {
    const SecretBytes okm = hkdfSha256(counting(0x60, 0xaf), counting(0, 0x4f), counting(0xb0, 0xff), 82);
    EXPECT_EQ(hexEncode(okm.reveal()),
              "b11e398dc80327a1c8e7f78c596a49344f012eda2d4efad8a050cc4c19afa97c59045a99cac7827271cb41c65e590e09"
              "da3275600c2f09b8367793a9aca3db71cc30c58179ec3e87c14c01d5c1f3434f1d87");
}

TEST(HkdfSha256, MatchesTheRfcVectorWithoutSaltAndInfo) {
    const SecretBytes okm = hkdfSha256({}, Bytes(22, std::byte{0x0b}), {}, 42);
    EXPECT_EQ(hexEncode(okm.reveal()),
              "8da4e775a563c18f715f802a063c5a31b8a11f5c5ee1879ec3454e5f3c738d2d9d201395faa4b61a96c8");
}

TEST(HkdfSha256, TakesAnEmptyInputKey) {
    // HMAC(HMAC("salt", ""), 0x01), computed with Python's hmac
    EXPECT_EQ(hexEncode(hkdfSha256(asBytes("salt"), {}, {}, 32).reveal()),
              "3575f53d43a910da7c16d7ec27dce663b83bb193d183b5eb3c3bdab69e35efed");
}

TEST(HkdfSha256, GivesNothingWhereNothingIsAskedFor) {
    EXPECT_TRUE(hkdfSha256(asBytes("salt"), asBytes("key"), {}, 0).empty());
}

TEST(HkdfSha256, RefusesMoreThan255Blocks) {
    EXPECT_EQ(hkdfSha256(asBytes("salt"), asBytes("key"), {}, 255 * 32).size(), 255u * 32);
    EXPECT_NE(cryptoErrorOf([] { static_cast<void>(hkdfSha256(asBytes("salt"), asBytes("key"), {}, 255 * 32 + 1)); }),
              "");
}

// --- X25519 (RFC 7748) ---

TEST(X25519, MatchesTheRfcVectors) {
    EXPECT_EQ(agreed("a546e36bf0527c9d3b16154b82465edd62144c0ac1fc5a18506a2244ba449ac4",
                     "e6db6867583030db3594c1a424b15f7c726624ec26b3353b10a903a6d0ab1c4c"),
              "c3da55379de9c6908e94ea4df28d084f32eccf03491c71f754b4075577a28552");
    EXPECT_EQ(agreed("4b66e9d4d1b4673c5ad22691957d6af5c11b6421e0ea01d42ca4169e7918ba0d",
                     "e5210f12786811d3f4b7959d0538ae2c31dbe7106fc03c3efc4cd549c715a493"),
              "95cbde9476e8907d7aade45cb4b873f88b595a68799fa152e6f8f7647aac7957");
}

TEST(X25519, MatchesTheRfcVectorsOfRepeatedUse) {
    Bytes k = unhex("0900000000000000000000000000000000000000000000000000000000000000");
    Bytes u = k;
    for (int round = 1; round <= 1000; ++round) {
        const SecretBytes result = PrivateKey::fromRaw(k).agree(PublicKey::fromBytes(u).value());
        u = k;
        k = toBytes(result.reveal());
        if (round == 1) {
            EXPECT_EQ(hexEncode(k), "422c8e7a6227d7bca1350b3e2bb7279f7897b87bb6854b783c60e80311ae3079");
        }
    }
    EXPECT_EQ(hexEncode(k), "684cf59ba83309552800ef566f2f4d3c1c3887c49360e3875f2eb94d99532c51");
}

TEST(X25519, MatchesTheRfcExchange) {
    const PrivateKey alice =
        PrivateKey::fromRaw(unhex("77076d0a7318a57d3c16c17251b26645df4c2f87ebc0992ab177fba51db92c2a"));
    const PrivateKey bob =
        PrivateKey::fromRaw(unhex("5dab087e624a8a4b79e17f8b83800ee66f3bb1292618b6fd1c2f8b27ff88e0eb"));
    EXPECT_EQ(hexEncode(alice.publicKey().raw()), "8520f0098930a754748b7ddcb43ef75a0dbf3a0d26381af4eba4a98eaa9b4e6a");
    EXPECT_EQ(hexEncode(bob.publicKey().raw()), "de9edb7d7b7dc1b4d35b61c2ece435373f8343c85b78674dadfc7e146f882b4f");
    const std::string shared = "4a5d9d5ba4ce2de1728e3bf480350f25e07e21c947d19e3376f09b3c1e161742";
    EXPECT_EQ(hexEncode(alice.agree(bob.publicKey()).reveal()), shared);
    EXPECT_EQ(hexEncode(bob.agree(alice.publicKey()).reveal()), shared);
}

class LowOrderPoints : public testing::TestWithParam<const char*> {};

TEST_P(LowOrderPoints, AreRefused) {
    const PrivateKey key = PrivateKey::generate();
    Bytes point = unhex(GetParam());
    for (const std::byte topBit : {std::byte{0}, std::byte{0x80}}) { // which X25519 ignores
        point.back() |= topBit;
        const PublicKey peer = PublicKey::fromBytes(point).value();
        EXPECT_NE(cryptoErrorOf([&] { static_cast<void>(key.agree(peer)); }), "") << hexEncode(point);
    }
}

INSTANTIATE_TEST_SUITE_P(X25519, LowOrderPoints,
                         testing::Values("0000000000000000000000000000000000000000000000000000000000000000",
                                         "0100000000000000000000000000000000000000000000000000000000000000",
                                         "e0eb7a7c3b41b8ae1656e3faf19fc46ada098deb9c32b1fd866205165f49b800",
                                         "5f9c95bca3508c24b1d0b1559c83ef5b04445cc4581c8e86d8224eddd09f1157",
                                         "ecffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f",
                                         "edffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f",
                                         "eeffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f"));

TEST(X25519, WorksAgainAfterARefusal) {
    const PrivateKey key = PrivateKey::generate();
    const PrivateKey other = PrivateKey::generate();
    const PublicKey zero = PublicKey::fromBytes(Bytes(32)).value();
    EXPECT_NE(cryptoErrorOf([&] { static_cast<void>(key.agree(zero)); }), "");
    EXPECT_EQ(toBytes(key.agree(other.publicKey()).reveal()), toBytes(other.agree(key.publicKey()).reveal()));
}

TEST(PrivateKey, IsFreshEachTime) {
    std::set<std::string> seen;
    for (int i = 0; i < 64; ++i) {
        seen.insert(hexEncode(PrivateKey::generate().reveal()));
    }
    EXPECT_EQ(seen.size(), 64u);
}

TEST(PrivateKey, TakesExactly32Bytes) {
    EXPECT_NE(cryptoErrorOf([] { static_cast<void>(PrivateKey::fromRaw(Bytes(31))); }), "");
    EXPECT_NE(cryptoErrorOf([] { static_cast<void>(PrivateKey::fromRaw(Bytes(33))); }), "");
    EXPECT_NE(cryptoErrorOf([] { static_cast<void>(PrivateKey::fromRaw({})); }), "");
}

TEST(PrivateKey, ComesBackFromItsRawBytes) {
    const PrivateKey key = PrivateKey::generate();
    EXPECT_EQ(PrivateKey::fromRaw(key.reveal()).publicKey(), key.publicKey());
}

TEST(PrivateKey, IsStillItselfAsACloneWhenTheOriginalIsGone) {
    const PrivateKey peer = PrivateKey::generate();
    std::optional<PrivateKey> original = PrivateKey::generate();
    const Bytes shared = toBytes(original->agree(peer.publicKey()).reveal());
    const PrivateKey clone = original->clone();
    original.reset();
    EXPECT_EQ(toBytes(clone.agree(peer.publicKey()).reveal()), shared);
}

TEST(PublicKey, HasOneBase64Text) {
    const PublicKey key = PrivateKey::generate().publicKey();
    EXPECT_EQ(key.base64().size(), 44u);
    EXPECT_EQ(PublicKey::fromBase64(key.base64()), key);
    EXPECT_FALSE(PublicKey::fromBase64("AAAA"));
    EXPECT_FALSE(PublicKey::fromBase64("not base64"));
    EXPECT_FALSE(PublicKey::fromBytes(Bytes(31)));
    EXPECT_FALSE(PublicKey::fromBytes(Bytes(33)));
}

// --- ChaCha20-Poly1305 (RFC 8439) ---

struct Aead {
    explicit Aead(ByteView key) : cipher(key.first<ChaCha20Poly1305::keyBytes>()) {}

    Bytes seal(ByteView nonce, ByteView ad, ByteView plaintext) {
        Bytes data = toBytes(plaintext);
        std::array<std::byte, ChaCha20Poly1305::tagBytes> tag{};
        cipher.seal(nonceOf(nonce), ad, data, tag);
        return concatenate({data, tag});
    }
    std::optional<Bytes> open(ByteView nonce, ByteView ad, ByteView sealed) {
        Bytes data = toBytes(sealed.first(sealed.size() - ChaCha20Poly1305::tagBytes));
        if (!cipher.open(nonceOf(nonce), ad, data, sealed.last<ChaCha20Poly1305::tagBytes>())) {
            EXPECT_TRUE(std::ranges::all_of(data, [](std::byte byte) { return byte == std::byte{0}; }))
                << "an unchecked plaintext got out";
            return std::nullopt;
        }
        return data;
    }
    static ChaCha20Poly1305::Nonce nonceOf(ByteView bytes) {
        ChaCha20Poly1305::Nonce nonce{};
        std::ranges::copy(bytes, nonce.begin());
        return nonce;
    }
    ChaCha20Poly1305 cipher;
};

struct RfcVector {
    Bytes key, nonce, ad, plaintext, sealed;
};

RfcVector section282() {
    return {counting(0x80, 0x9f), unhex("070000004041424344454647"), unhex("50515253c0c1c2c3c4c5c6c7"),
            toBytes("Ladies and Gentlemen of the class of '99: If I could offer you only one tip for the future, "
                    "sunscreen would be it."),
            unhex("d31a8d34648e60db7b86afbc53ef7ec2a4aded51296e08fea9e2b5a736ee62d63dbea45e8ca9671282fafb69da92728b"
                  "1a71de0a9e060b2905d6a5b67ecd3b3692ddbd7f2d778b8c9803aee328091b58fab324e4fad675945585808b4831d7bc"
                  "3ff4def08e4b7a9de576d26586cec64b61161ae10b594f09e26a7e902ecbd0600691")};
}

RfcVector appendixA5() {
    return {unhex("1c9240a5eb55d38af333888604f6b5f0473917c1402b80099dca5cbc207075c0"),
            unhex("000000000102030405060708"), unhex("f33388860000000000004e91"),
            toBytes("Internet-Drafts are draft documents valid for a maximum of six months and may be updated, "
                    "replaced, or obsoleted by other documents at any time. It is inappropriate to use "
                    "Internet-Drafts as reference material or to cite them other than as /“work in progress./”"),
            unhex("64a0861575861af460f062c79be643bd5e805cfd345cf389f108670ac76c8cb24c6cfc18755d43eea09ee94e382d26b0"
                  "bdb7b73c321b0100d4f03b7f355894cf332f830e710b97ce98c8a84abd0b948114ad176e008d33bd60f982b1ff37c855"
                  "9797a06ef4f0ef61c186324e2b3506383606907b6a7c02b0f9f6157b53c867e4b9166c767b804d46a59b5216cde7a4e9"
                  "9040c5a40433225ee282a1b0a06c523eaf4534d7f83fa1155b0047718cbc546a0d072b04b3564eea1b422273f548271a"
                  "0bb2316053fa76991955ebd63159434ecebb4e466dae5a1073a6727627097a1049e617d91d361094fa68f0ff77987130"
                  "305beaba2eda04df997b714d6c6f2c29a6ad5cb4022b02709beead9d67890cbb22392336fea1851f38")};
}

TEST(ChaCha20Poly1305, MatchesTheRfcVectors) {
    for (const RfcVector& vector : {section282(), appendixA5()}) {
        Aead aead(vector.key);
        EXPECT_EQ(hexEncode(aead.seal(vector.nonce, vector.ad, vector.plaintext)), hexEncode(vector.sealed));
        EXPECT_EQ(aead.open(vector.nonce, vector.ad, vector.sealed), vector.plaintext);
    }
}

TEST(ChaCha20Poly1305, RefusesEveryFlippedBitAndGivesNothingAway) {
    const RfcVector vector = section282();
    Aead aead(vector.key);
    for (std::size_t bit = 0; bit < vector.sealed.size() * 8; ++bit) {
        Bytes damaged = vector.sealed;
        damaged[bit / 8] ^= std::byte{1} << (bit % 8);
        EXPECT_FALSE(aead.open(vector.nonce, vector.ad, damaged)) << "bit " << bit;
    }
    for (std::size_t i = 0; i < vector.ad.size(); ++i) {
        Bytes ad = vector.ad;
        ad[i] ^= std::byte{1};
        EXPECT_FALSE(aead.open(vector.nonce, ad, vector.sealed)) << "associated data " << i;
    }
    EXPECT_FALSE(aead.open(vector.nonce, {}, vector.sealed));
    for (std::size_t i = 0; i < vector.nonce.size(); ++i) {
        Bytes nonce = vector.nonce;
        nonce[i] ^= std::byte{1};
        EXPECT_FALSE(aead.open(nonce, vector.ad, vector.sealed)) << "nonce " << i;
    }
    EXPECT_EQ(aead.open(vector.nonce, vector.ad, vector.sealed), vector.plaintext) << "the damage has left a trace";
}

TEST(ChaCha20Poly1305, ChangesDirectionFromMessageToMessage) {
    Aead one(Bytes(32, std::byte{7}));
    Aead other(Bytes(32, std::byte{7}));
    for (std::size_t length = 0; length < 300; ++length) {
        const Bytes nonce = counting(static_cast<int>(length % 100), static_cast<int>(length % 100) + 11);
        const Bytes plaintext(length, std::byte{0x5a});
        const Bytes sealed = one.seal(nonce, asBytes("ad"), plaintext);
        EXPECT_EQ(one.open(nonce, asBytes("ad"), sealed), plaintext);
        EXPECT_EQ(other.open(nonce, asBytes("ad"), sealed), plaintext);
        EXPECT_EQ(other.seal(nonce, asBytes("ad"), plaintext), sealed);
    }
}

TEST(ChaCha20Poly1305, SealsNothingIntoABareTag) {
    Aead aead(Bytes(32, std::byte{1}));
    const Bytes nonce(12);
    const Bytes sealed = aead.seal(nonce, {}, {});
    // computed with Python's cryptography package
    EXPECT_EQ(hexEncode(sealed), "35eaf9cc876d72bd36f8b7cf7d8c8142");
    EXPECT_EQ(aead.open(nonce, {}, sealed), Bytes());
    EXPECT_FALSE(aead.open(nonce, asBytes("x"), sealed));
}

TEST(ChaCha20Poly1305, SealsTheLargestFrameInPlace) {
    constexpr std::size_t size = 16'777'216;
    Aead aead(Bytes(32, std::byte{1}));
    const Bytes plaintext(size, std::byte{0x33});
    const Bytes sealed = aead.seal(Bytes(12), {}, plaintext);
    EXPECT_EQ(aead.open(Bytes(12), {}, sealed), plaintext);
}

TEST(Crypto, IsUsedFromManyThreadsFromTheFirstCallOn) {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([i] {
            Aead aead(Bytes(32, static_cast<std::byte>(i)));
            const Bytes sealed = aead.seal(Bytes(12), {}, asBytes("text"));
            EXPECT_EQ(aead.open(Bytes(12), {}, sealed), toBytes("text"));
            static_cast<void>(PrivateKey::generate().agree(PrivateKey::generate().publicKey()));
        });
    }
}

// --- randomness ---

TEST(RandomBytes, FillsTheWholeOfWhatItIsGiven) {
    std::set<std::byte> firstBytes;
    std::set<std::byte> lastBytes;
    for (int i = 0; i < 64; ++i) {
        Bytes bytes(33);
        randomBytes(bytes);
        firstBytes.insert(bytes.front());
        lastBytes.insert(bytes.back());
    }
    EXPECT_GT(firstBytes.size(), 8u); // 64 equal bytes would be a broken generator; 8 of them never happen
    EXPECT_GT(lastBytes.size(), 8u);
    randomBytes({});
}

TEST(RandomUuidText, IsAFreshUpperCaseUuidOfVersion4) {
    const std::regex form("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
    const std::string text = randomUuidText();
    EXPECT_TRUE(std::regex_match(text, form)) << text;
    EXPECT_NE(text, randomUuidText());
}

} // namespace
} // namespace orlinth::platform
