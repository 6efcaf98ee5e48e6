#include "OrlinthCore/SecureChannel/NoiseXX.h"

#include "base/Hex.h"
#include "base/Json.h"

#include <gtest/gtest.h>

#include <array>
#include <concepts>
#include <fstream>
#include <limits>
#include <sstream>

namespace orlinth {
namespace {

using platform::PrivateKey;
using platform::PublicKey;

static_assert(!std::copy_constructible<NoiseTransport>, "a copied counter would use nonces twice");

/// The NoiseError of `action`: its case and its text.
template <typename Action>
std::pair<std::optional<NoiseError::Case>, std::string> noiseErrorOf(Action action) {
    try {
        action();
    } catch (const NoiseError& error) {
        return {error.which(), error.description()};
    }
    return {std::nullopt, "no error"};
}

/// Whether `action` fails in one of the two ways that bytes from outside may make it fail.
template <typename Action>
bool isRefused(Action action) {
    try {
        action();
    } catch (const NoiseError&) {
        return true;
    } catch (const platform::CryptoError&) {
        return true;
    }
    return false;
}

Bytes unhex(std::string_view text) {
    return hexDecode(text).value();
}

// --- CipherState ---

SecretBytes someKey() {
    return SecretBytes(Bytes(32, std::byte{0x42}));
}

TEST(CipherState, IsTheIdentityAndDoesNotCountWithoutAKey) {
    CipherState cipher;
    EXPECT_FALSE(cipher.hasKey());
    EXPECT_EQ(cipher.encryptWithAD(asBytes("text"), asBytes("ad")), toBytes("text"));
    EXPECT_EQ(cipher.decryptWithAD(asBytes("text"), asBytes("ad")), toBytes("text"));
    EXPECT_EQ(cipher.decryptWithAD({}, {}), Bytes());
    EXPECT_EQ(cipher.nonce(), 0u);
}

TEST(CipherState, EncodesTheCounterInLittleEndianBehindFourZeroBytes) {
    const SecretBytes key = someKey();
    platform::ChaCha20Poly1305 bare(key.reveal().first<32>());
    const std::pair<std::uint64_t, const char*> nonces[] = {
        {0, "000000000000000000000000"},
        {1, "000000000100000000000000"},
        {0x0102030405060708, "000000000807060504030201"},
    };
    for (const auto& [counter, encoded] : nonces) {
        platform::ChaCha20Poly1305::Nonce nonce{};
        std::ranges::copy(unhex(encoded), nonce.begin());
        Bytes expected = toBytes("text");
        std::array<std::byte, 16> tag{};
        bare.seal(nonce, asBytes("ad"), expected, tag);
        expected.insert(expected.end(), tag.begin(), tag.end());

        CipherState cipher(key, counter);
        EXPECT_EQ(cipher.encryptWithAD(asBytes("text"), asBytes("ad")), expected) << encoded;
        EXPECT_EQ(cipher.nonce(), counter + 1);
    }
}

TEST(CipherState, CountsFromZero) {
    CipherState cipher(someKey());
    CipherState explicitly(someKey(), 0);
    EXPECT_EQ(cipher.encryptWithAD({}, {}), explicitly.encryptWithAD({}, {}));
    CipherState second(someKey(), 1);
    EXPECT_EQ(cipher.encryptWithAD({}, {}), second.encryptWithAD({}, {}));
}

TEST(CipherState, NeedsRoomForTheTag) {
    CipherState cipher(someKey());
    const auto [which, text] = noiseErrorOf([&] { static_cast<void>(cipher.decryptWithAD(Bytes(15), {})); });
    EXPECT_EQ(which, NoiseError::Case::messageTooShort);
    EXPECT_EQ(text, "noise message too short (expected ≥ 16, got 15)");
    Bytes message(3);
    EXPECT_EQ(noiseErrorOf([&] { static_cast<void>(cipher.decryptInPlace(message, {})); }).second,
              "noise message too short (expected ≥ 16, got 3)");
    EXPECT_EQ(cipher.nonce(), 0u);
}

TEST(CipherState, StillOpensTheGenuineMessageAfterATamperedOne) {
    CipherState sender(someKey());
    CipherState receiver(someKey());
    const Bytes genuine = sender.encryptWithAD(asBytes("text"), {});
    Bytes tampered = genuine;
    tampered[1] ^= std::byte{1};
    const auto [which, text] = noiseErrorOf([&] { static_cast<void>(receiver.decryptWithAD(tampered, {})); });
    EXPECT_EQ(which, NoiseError::Case::decrypt);
    EXPECT_TRUE(text.starts_with("noise decrypt failed: ")) << text;
    EXPECT_GT(text.size(), std::string("noise decrypt failed: ").size());
    EXPECT_EQ(receiver.nonce(), 0u);
    EXPECT_EQ(receiver.decryptWithAD(genuine, {}), toBytes("text"));
    EXPECT_EQ(receiver.nonce(), 1u);
}

TEST(CipherState, RefusesAReplayAndAMessageOutOfTurn) {
    CipherState sender(someKey());
    CipherState receiver(someKey());
    const Bytes first = sender.encryptWithAD(asBytes("first"), {});
    const Bytes second = sender.encryptWithAD(asBytes("second"), {});
    EXPECT_TRUE(isRefused([&] { static_cast<void>(receiver.decryptWithAD(second, {})); }));
    EXPECT_EQ(receiver.decryptWithAD(first, {}), toBytes("first"));
    EXPECT_TRUE(isRefused([&] { static_cast<void>(receiver.decryptWithAD(first, {})); }));
    EXPECT_EQ(receiver.decryptWithAD(second, {}), toBytes("second"));
}

TEST(CipherState, DoesTheSameInPlaceAsWithCopies) {
    CipherState copying(someKey());
    CipherState inPlace(someKey());
    CipherState opening(someKey());
    for (const std::size_t size : {0U, 1U, 63U, 64U, 1000U}) {
        const Bytes plaintext(size, std::byte{0x77});
        Bytes message = plaintext;
        message.resize(size + CipherState::tagBytes);
        inPlace.encryptInPlace(message, asBytes("ad"));
        EXPECT_EQ(message, copying.encryptWithAD(plaintext, asBytes("ad")));
        const MutableBytes opened = opening.decryptInPlace(message, asBytes("ad"));
        EXPECT_EQ(opened.data(), message.data());
        EXPECT_EQ(toBytes(opened), plaintext);
    }
}

TEST(CipherState, RefusesAKeyOfAnotherSize) {
    EXPECT_EQ(noiseErrorOf([] { CipherState cipher{SecretBytes(31)}; }).first, NoiseError::Case::malformedKeyMaterial);
}

TEST(CipherStateDeathTest, EndsTheProcessRatherThanUseANonceTwice) {
    constexpr std::uint64_t last = std::numeric_limits<std::uint64_t>::max();
    CipherState beforeLast(someKey(), last - 1);
    static_cast<void>(beforeLast.encryptWithAD({}, {}));
    EXPECT_EQ(beforeLast.nonce(), last);
    EXPECT_DEATH(static_cast<void>(beforeLast.encryptWithAD({}, {})), "");
}

// --- HKDF and SymmetricState ---

TEST(NoiseHKDF, GivesAsManyPiecesAsAskedFor) {
    EXPECT_TRUE(noiseHKDF(asBytes("ck"), asBytes("ikm"), 0).empty());
    const std::vector<SecretBytes> three = noiseHKDF(asBytes("ck"), asBytes("ikm"), 3);
    ASSERT_EQ(three.size(), 3u);
    const SecretBytes whole = platform::hkdfSha256(asBytes("ck"), asBytes("ikm"), {}, 96);
    EXPECT_EQ(concatenate({three[0].reveal(), three[1].reveal(), three[2].reveal()}), toBytes(whole.reveal()));
}

TEST(SymmetricState, StartsFromANameOf32BytesAsItIs) {
    const SymmetricState state(NoiseHandshake::protocolName);
    EXPECT_EQ(toText(state.h()), "Noise_XX_25519_ChaChaPoly_SHA256");
    EXPECT_EQ(toBytes(state.ck()), toBytes(state.h()));
    EXPECT_FALSE(state.cipher().hasKey());
}

TEST(SymmetricState, PadsAShorterNameWithZeros) {
    const SymmetricState state("ten-bytes!");
    EXPECT_EQ(toText(state.h()), std::string("ten-bytes!") + std::string(22, '\0'));
}

TEST(SymmetricState, HashesALongerName) {
    const std::string longName(40, 'n');
    const SymmetricState state(longName);
    EXPECT_EQ(toBytes(state.h()), toBytes(platform::sha256({asBytes(longName)})));
    EXPECT_EQ(toBytes(state.ck()), toBytes(state.h()));
}

TEST(SymmetricState, HashesWhatItPassesInClear) {
    SymmetricState state(NoiseHandshake::protocolName);
    const Bytes before = toBytes(state.h());
    EXPECT_EQ(state.encryptAndHash(asBytes("clear")), toBytes("clear"));
    EXPECT_EQ(toBytes(state.h()), toBytes(platform::sha256({before, asBytes("clear")})));
}

TEST(SymmetricState, StartsANewCipherWithEachKey) {
    SymmetricState state(NoiseHandshake::protocolName);
    state.mixKey(asBytes("one"));
    static_cast<void>(state.encryptAndHash(asBytes("text")));
    EXPECT_EQ(state.cipher().nonce(), 1u);
    state.mixKey(asBytes("two"));
    EXPECT_EQ(state.cipher().nonce(), 0u);
}

// --- the handshake ---

struct Party {
    explicit Party(NoiseRole role, std::string_view prologue = "Orlinth_v1")
        : staticKey(PrivateKey::generate()), handshake(role, staticKey.clone(), asBytes(prologue)) {}
    PrivateKey staticKey;
    NoiseHandshake handshake;
};

struct Pair {
    Party initiator{NoiseRole::initiator};
    Party responder{NoiseRole::responder};

    /// Runs the first `messages` messages.
    void run(int messages) {
        NoiseHandshake* writer = &initiator.handshake;
        NoiseHandshake* reader = &responder.handshake;
        for (int i = 0; i < messages; ++i) {
            static_cast<void>(reader->readMessage(writer->writeMessage({})));
            std::swap(writer, reader);
        }
    }
};

TEST(NoiseHandshake, MakesBothSidesAgree) {
    Pair pair;
    EXPECT_FALSE(pair.initiator.handshake.remoteStaticPublicKey());
    EXPECT_FALSE(pair.responder.handshake.remoteStaticPublicKey());
    pair.run(3);
    EXPECT_TRUE(pair.initiator.handshake.isComplete());
    EXPECT_TRUE(pair.responder.handshake.isComplete());
    NoiseTransport initiator = std::move(pair.initiator.handshake).finalize();
    NoiseTransport responder = std::move(pair.responder.handshake).finalize();
    EXPECT_EQ(initiator.handshakeHash(), responder.handshakeHash());
    EXPECT_EQ(initiator.remoteStaticPublicKey(), pair.responder.staticKey.publicKey());
    EXPECT_EQ(responder.remoteStaticPublicKey(), pair.initiator.staticKey.publicKey());
    EXPECT_EQ(responder.decrypt(initiator.encrypt(asBytes("to"), {}), {}), toBytes("to"));
    EXPECT_EQ(initiator.decrypt(responder.encrypt(asBytes("fro"), {}), {}), toBytes("fro"));
}

TEST(NoiseHandshake, HasMessagesOf32And96And64BytesWithoutPayloads) {
    Pair pair;
    const Bytes first = pair.initiator.handshake.writeMessage({});
    static_cast<void>(pair.responder.handshake.readMessage(first));
    const Bytes second = pair.responder.handshake.writeMessage({});
    static_cast<void>(pair.initiator.handshake.readMessage(second));
    const Bytes third = pair.initiator.handshake.writeMessage({});
    static_cast<void>(pair.responder.handshake.readMessage(third));
    EXPECT_EQ(first.size(), 32u);
    EXPECT_EQ(second.size(), 96u);
    EXPECT_EQ(third.size(), 64u);
}

TEST(NoiseHandshake, UsesFreshEphemeralKeys) {
    const PrivateKey key = PrivateKey::generate();
    NoiseHandshake one(NoiseRole::initiator, key.clone(), {});
    NoiseHandshake other(NoiseRole::initiator, key.clone(), {});
    EXPECT_NE(one.writeMessage({}), other.writeMessage({}));
}

TEST(NoiseHandshake, RefusesAnotherPrologueAtMessage2) {
    Party initiator(NoiseRole::initiator, "Orlinth_v1");
    Party responder(NoiseRole::responder, "Orlinth_v2");
    static_cast<void>(responder.handshake.readMessage(initiator.handshake.writeMessage({})));
    const Bytes second = responder.handshake.writeMessage({});
    EXPECT_EQ(noiseErrorOf([&] { static_cast<void>(initiator.handshake.readMessage(second)); }).first,
              NoiseError::Case::decrypt);
}

TEST(NoiseHandshake, RefusesAShortMessage1) {
    Pair pair;
    const auto [which, text] =
        noiseErrorOf([&] { static_cast<void>(pair.responder.handshake.readMessage(Bytes(31))); });
    EXPECT_EQ(which, NoiseError::Case::messageTooShort);
    EXPECT_EQ(text, "noise message too short (expected ≥ 32, got 31)");
}

TEST(NoiseHandshake, RefusesAMessage2AtEveryShorterLength) {
    for (std::size_t length = 0; length < 96; ++length) {
        Pair pair;
        pair.run(1);
        const Bytes second = pair.responder.handshake.writeMessage({});
        const auto [which, text] = noiseErrorOf(
            [&] { static_cast<void>(pair.initiator.handshake.readMessage(ByteView(second).first(length))); });
        EXPECT_EQ(which, NoiseError::Case::messageTooShort) << length;
        const std::string expected = length < 32   ? "≥ 32, got " + std::to_string(length)
                                     : length < 80 ? "≥ 48, got " + std::to_string(length - 32)
                                                   : "≥ 16, got " + std::to_string(length - 80);
        EXPECT_EQ(text, "noise message too short (expected " + expected + ")");
    }
}

TEST(NoiseHandshake, RefusesAMessage3AtEveryShorterLength) {
    for (std::size_t length = 0; length < 64; ++length) {
        Pair pair;
        pair.run(2);
        const Bytes third = pair.initiator.handshake.writeMessage({});
        EXPECT_EQ(noiseErrorOf([&] {
                      static_cast<void>(pair.responder.handshake.readMessage(ByteView(third).first(length)));
                  }).first,
                  NoiseError::Case::messageTooShort)
            << length;
        EXPECT_FALSE(pair.responder.handshake.isComplete());
    }
}

TEST(NoiseHandshake, RefusesCallsOutOfTurn) {
    Pair pair;
    EXPECT_EQ(noiseErrorOf([&] { static_cast<void>(pair.responder.handshake.writeMessage({})); }).second,
              "noise responder cannot writeMessage at step 0");
    EXPECT_EQ(noiseErrorOf([&] { static_cast<void>(pair.initiator.handshake.readMessage(Bytes(96))); }).second,
              "noise initiator cannot readMessage at step 0");
    pair.run(1);
    EXPECT_EQ(noiseErrorOf([&] { static_cast<void>(pair.initiator.handshake.writeMessage({})); }).second,
              "noise initiator cannot writeMessage at step 1");
    const auto [which, text] =
        noiseErrorOf([&] { static_cast<void>(pair.responder.handshake.readMessage(Bytes(64))); });
    EXPECT_EQ(text, "noise responder cannot readMessage at step 1");
    EXPECT_EQ(which, NoiseError::Case::wrongStep);
}

TEST(NoiseHandshake, RefusesEverythingAfterItsEnd) {
    Pair pair;
    pair.run(3);
    for (NoiseHandshake* handshake : {&pair.initiator.handshake, &pair.responder.handshake}) {
        const auto [which, text] = noiseErrorOf([&] { static_cast<void>(handshake->writeMessage({})); });
        EXPECT_EQ(which, NoiseError::Case::alreadyComplete);
        EXPECT_EQ(text, "handshake already complete");
        EXPECT_EQ(noiseErrorOf([&] { static_cast<void>(handshake->readMessage(Bytes(64))); }).first,
                  NoiseError::Case::alreadyComplete);
    }
}

TEST(NoiseHandshake, GivesNoSessionBeforeItsEnd) {
    for (int messages = 0; messages < 3; ++messages) {
        Pair pair;
        pair.run(messages);
        for (NoiseHandshake* handshake : {&pair.initiator.handshake, &pair.responder.handshake}) {
            const auto [which, text] = noiseErrorOf([&] { static_cast<void>(std::move(*handshake).finalize()); });
            EXPECT_EQ(which, NoiseError::Case::notComplete);
            EXPECT_EQ(text, "handshake not complete");
        }
    }
}

TEST(NoiseHandshake, StaysAtItsStepWhenACallFails) {
    Pair pair;
    EXPECT_TRUE(isRefused([&] { static_cast<void>(pair.responder.handshake.readMessage(Bytes(31))); }));
    EXPECT_EQ(noiseErrorOf([&] { static_cast<void>(pair.responder.handshake.writeMessage({})); }).second,
              "noise responder cannot writeMessage at step 0");
}

TEST(NoiseHandshake, RefusesAnEphemeralKeyOfLowOrder) {
    Pair pair;
    static_cast<void>(pair.responder.handshake.readMessage(Bytes(32))); // all zero: no secret is made of it yet
    EXPECT_THROW(static_cast<void>(pair.responder.handshake.writeMessage({})), platform::CryptoError);

    Party initiator(NoiseRole::initiator);
    static_cast<void>(initiator.handshake.writeMessage({}));
    EXPECT_THROW(static_cast<void>(initiator.handshake.readMessage(Bytes(96))), platform::CryptoError);
}

TEST(NoiseHandshake, RefusesItsOwnMessageSentBack) {
    Pair pair;
    pair.run(1);
    const Bytes second = pair.responder.handshake.writeMessage({});
    EXPECT_TRUE(isRefused([&] { static_cast<void>(pair.responder.handshake.readMessage(second)); }));
}

TEST(NoiseError, HasItsTexts) {
    EXPECT_EQ(NoiseError::malformedKeyMaterial("x").description(), "noise key material malformed: x");
    EXPECT_EQ(NoiseError::decrypt("x").description(), "noise decrypt failed: x");
    EXPECT_EQ(name(NoiseRole::initiator), "initiator");
    EXPECT_EQ(name(NoiseRole::responder), "responder");
}

// --- figures of an independent implementation ---

/// One conversation with fixed keys, from noise_xx.json.
class NoiseVectors : public testing::TestWithParam<int> {
protected:
    NoiseVectors() {
        std::ifstream file(ORLINTH_TEST_VECTORS "/noise_xx.json");
        std::stringstream text;
        text << file.rdbuf();
        const Json all = parseJson(text.str());
        EXPECT_EQ(requireString(all, "protocol"), NoiseHandshake::protocolName);
        vector_ = all.at("cases").at(static_cast<std::size_t>(GetParam()));
        for (const Json& step : vector_.at("handshake")) {
            payloads_.push_back(unhex(requireString(step, "payload")));
            messages_.push_back(unhex(requireString(step, "message")));
        }
        EXPECT_EQ(messages_.size(), 3u);
    }

    [[nodiscard]] PrivateKey key(const std::string& which) const {
        return PrivateKey::fromRaw(unhex(requireString(vector_, which.c_str())));
    }
    [[nodiscard]] NoiseHandshake party(NoiseRole role) const {
        const std::string prefix(name(role));
        const Bytes ephemeral = unhex(requireString(vector_, (prefix + "_ephemeral").c_str()));
        return {role, key(prefix + "_static"), unhex(requireString(vector_, "prologue")),
                [ephemeral] { return PrivateKey::fromRaw(ephemeral); }};
    }
    /// A party that has taken its part in the first `steps` messages, the other part coming from the file.
    [[nodiscard]] NoiseHandshake partyAt(NoiseRole role, std::size_t steps) const {
        NoiseHandshake handshake = party(role);
        for (std::size_t i = 0; i < steps; ++i) {
            if (writes(role, i)) {
                EXPECT_EQ(hexEncode(handshake.writeMessage(payloads_[i])), hexEncode(messages_[i])) << "message " << i;
            } else {
                EXPECT_EQ(handshake.readMessage(messages_[i]), payloads_[i]) << "message " << i;
            }
        }
        return handshake;
    }
    [[nodiscard]] static bool writes(NoiseRole role, std::size_t message) {
        return (message % 2 == 0) == (role == NoiseRole::initiator);
    }
    [[nodiscard]] static NoiseRole readerOf(std::size_t message) {
        return writes(NoiseRole::initiator, message) ? NoiseRole::responder : NoiseRole::initiator;
    }
    /// Whether a party refuses `damaged` in place of message `i`: at once, or, for the unauthenticated first message,
    /// by not understanding (or not being understood by) the other side any more.
    [[nodiscard]] bool endsBadly(std::size_t i, ByteView damaged) const {
        NoiseHandshake reader = partyAt(readerOf(i), i);
        return isRefused([&] {
            static_cast<void>(reader.readMessage(damaged));
            if (i == 0) {
                NoiseHandshake initiator = partyAt(NoiseRole::initiator, 1);
                static_cast<void>(initiator.readMessage(reader.writeMessage(payloads_[1])));
            }
        });
    }
    /// The ciphertexts and plaintexts that `sender` sends.
    [[nodiscard]] std::vector<std::pair<Bytes, Bytes>> sentBy(NoiseRole sender) const {
        std::vector<std::pair<Bytes, Bytes>> sent;
        for (const Json& message : vector_.at("transport")) {
            if (requireString(message, "from") == name(sender)) {
                sent.emplace_back(unhex(requireString(message, "plaintext")),
                                  unhex(requireString(message, "ciphertext")));
            }
        }
        return sent;
    }

    Json vector_;
    std::vector<Bytes> payloads_;
    std::vector<Bytes> messages_;
};

TEST_P(NoiseVectors, AgreeInBothRoles) {
    for (const NoiseRole role : {NoiseRole::initiator, NoiseRole::responder}) {
        const NoiseRole other = role == NoiseRole::initiator ? NoiseRole::responder : NoiseRole::initiator;
        NoiseHandshake handshake = partyAt(role, 3);
        ASSERT_TRUE(handshake.isComplete());
        EXPECT_EQ(hexEncode(handshake.handshakeHash()), requireString(vector_, "handshake_hash"));
        NoiseTransport session = std::move(handshake).finalize();
        EXPECT_EQ(hexEncode(session.handshakeHash()), requireString(vector_, "handshake_hash"));
        EXPECT_EQ(session.remoteStaticPublicKey(), key(std::string(name(other)) + "_static").publicKey());
        for (const auto& [plaintext, ciphertext] : sentBy(role)) {
            EXPECT_EQ(hexEncode(session.encrypt(plaintext, {})), hexEncode(ciphertext));
        }
        for (const auto& [plaintext, ciphertext] : sentBy(other)) {
            EXPECT_EQ(session.decrypt(ciphertext, {}), plaintext);
        }
    }
}

TEST_P(NoiseVectors, AreRefusedWithAnyByteOfTheHandshakeFlipped) {
    for (std::size_t i = 0; i < messages_.size(); ++i) {
        for (std::size_t at = 0; at < messages_[i].size(); ++at) {
            Bytes damaged = messages_[i];
            damaged[at] ^= std::byte{0x01};
            EXPECT_TRUE(endsBadly(i, damaged)) << "message " << i << ", byte " << at;
        }
    }
}

TEST_P(NoiseVectors, AreRefusedWithAHandshakeMessageOfAnotherLength) {
    for (std::size_t i = 0; i < messages_.size(); ++i) {
        EXPECT_TRUE(endsBadly(i, ByteView(messages_[i]).first(messages_[i].size() - 1))) << "message " << i;
        Bytes longer = messages_[i];
        longer.push_back(std::byte{0});
        EXPECT_TRUE(endsBadly(i, longer)) << "message " << i;
    }
}

TEST_P(NoiseVectors, AreRefusedWithAHandshakeMessageInAnothersPlace) {
    for (std::size_t place = 0; place < messages_.size(); ++place) {
        for (std::size_t i = 0; i < messages_.size(); ++i) {
            if (i != place) {
                EXPECT_TRUE(endsBadly(place, messages_[i])) << "message " << i << " in place of " << place;
            }
        }
    }
}

TEST_P(NoiseVectors, AreRefusedByTheSideThatHasSentThem) {
    for (std::size_t i = 0; i < messages_.size(); ++i) {
        NoiseHandshake writer =
            partyAt(readerOf(i) == NoiseRole::initiator ? NoiseRole::responder : NoiseRole::initiator, i + 1);
        EXPECT_TRUE(isRefused([&] { static_cast<void>(writer.readMessage(messages_[i])); })) << "message " << i;
    }
}

TEST_P(NoiseVectors, AreRefusedWithADamagedTransportMessage) {
    for (const NoiseRole role : {NoiseRole::initiator, NoiseRole::responder}) {
        const NoiseRole other = role == NoiseRole::initiator ? NoiseRole::responder : NoiseRole::initiator;
        NoiseTransport session = partyAt(role, 3).finalize();
        for (const auto& [plaintext, ciphertext] : sentBy(role)) {
            EXPECT_TRUE(isRefused([&] { static_cast<void>(session.decrypt(ciphertext, {})); })) << "wrong direction";
        }
        for (const auto& [plaintext, ciphertext] : sentBy(other)) {
            const auto refuses = [&](const Bytes& damaged) {
                return isRefused([&] { static_cast<void>(session.decrypt(damaged, {})); });
            };
            for (std::size_t at = 0; at < ciphertext.size(); ++at) {
                Bytes damaged = ciphertext;
                damaged[at] ^= std::byte{0x80};
                EXPECT_TRUE(refuses(damaged)) << "byte " << at;
            }
            EXPECT_TRUE(refuses(toBytes(ByteView(ciphertext).first(ciphertext.size() - 1))));
            EXPECT_TRUE(refuses(concatenate({ciphertext, Bytes(1)})));
            EXPECT_EQ(session.decrypt(ciphertext, {}), plaintext) << "a refused message has moved the counter";
            EXPECT_TRUE(refuses(ciphertext)) << "replay";
        }
    }
}

INSTANTIATE_TEST_SUITE_P(All, NoiseVectors, testing::Range(0, 5));

TEST(NoiseErrorPayload, IsWhatTheTextSays) {
    const NoiseError step = NoiseError::wrongStep(NoiseRole::responder, 2, "writeMessage");
    EXPECT_EQ(step.role(), NoiseRole::responder);
    EXPECT_EQ(step.step(), 2);
    EXPECT_EQ(step.op(), "writeMessage");
    EXPECT_EQ(NoiseError::messageTooShort(32, 31).expected(), 32U);
    EXPECT_EQ(NoiseError::messageTooShort(32, 31).actual(), 31U);
    EXPECT_EQ(NoiseError::decrypt("why").detail(), "why");
    EXPECT_EQ(NoiseError::malformedKeyMaterial("why").detail(), "why");
}

} // namespace
} // namespace orlinth
