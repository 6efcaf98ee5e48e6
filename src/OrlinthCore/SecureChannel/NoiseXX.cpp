#include "OrlinthCore/SecureChannel/NoiseXX.h"

#include "base/Endian.h"

#include <algorithm>
#include <cassert>
#include <cstdlib>
#include <limits>

namespace orlinth {

namespace {

constexpr std::size_t hashBytes = platform::sha256Bytes;
constexpr std::size_t publicKeyBytes = platform::PublicKey::size;

static_assert(hashBytes == platform::ChaCha20Poly1305::keyBytes, "a key is a whole output of the HKDF");

void append(Bytes& out, ByteView more) {
    out.insert(out.end(), more.begin(), more.end());
}

} // namespace

std::string_view name(NoiseRole role) noexcept {
    return role == NoiseRole::initiator ? "initiator" : "responder";
}

// --- NoiseError ---

NoiseError NoiseError::wrongStep(NoiseRole role, int step, std::string_view op) {
    std::string text = "noise ";
    text.append(orlinth::name(role)).append(" cannot ").append(op).append(" at step ").append(std::to_string(step));
    NoiseError error(Case::wrongStep, std::move(text));
    error.role_ = role;
    error.step_ = step;
    error.op_ = op;
    return error;
}

NoiseError NoiseError::messageTooShort(std::size_t expected, std::size_t actual) {
    NoiseError error(Case::messageTooShort, "noise message too short (expected ≥ " + std::to_string(expected) +
                                                ", got " + std::to_string(actual) + ")");
    error.expected_ = expected;
    error.actual_ = actual;
    return error;
}

NoiseError NoiseError::decrypt(const std::string& text) {
    return {Case::decrypt, "noise decrypt failed: ", text};
}

NoiseError NoiseError::malformedKeyMaterial(const std::string& text) {
    return {Case::malformedKeyMaterial, "noise key material malformed: ", text};
}

NoiseError NoiseError::notComplete() {
    return {Case::notComplete, "handshake not complete"};
}

NoiseError NoiseError::alreadyComplete() {
    return {Case::alreadyComplete, "handshake already complete"};
}

// --- CipherState ---

std::vector<SecretBytes> noiseHKDF(ByteView ck, ByteView ikm, std::size_t numOutputs) {
    const SecretBytes output = platform::hkdfSha256(ck, ikm, {}, numOutputs * hashBytes);
    std::vector<SecretBytes> pieces;
    pieces.reserve(numOutputs);
    for (std::size_t i = 0; i < numOutputs; ++i) {
        pieces.emplace_back(output.reveal().subspan(i * hashBytes, hashBytes));
    }
    return pieces;
}

CipherState::CipherState(const SecretBytes& key, std::uint64_t nonce) : nonce_(nonce) {
    if (key.size() != platform::ChaCha20Poly1305::keyBytes) {
        throw NoiseError::malformedKeyMaterial("a cipher key has 32 bytes, not " + std::to_string(key.size()));
    }
    key_.emplace(key.reveal().first<platform::ChaCha20Poly1305::keyBytes>());
}

Bytes CipherState::encryptWithAD(ByteView plaintext, ByteView ad) {
    if (!key_) {
        return toBytes(plaintext);
    }
    Bytes message(plaintext.size() + tagBytes);
    std::ranges::copy(plaintext, message.begin());
    encryptInPlace(message, ad);
    return message;
}

Bytes CipherState::decryptWithAD(ByteView ciphertext, ByteView ad) {
    Bytes message = toBytes(ciphertext);
    if (key_) {
        const std::size_t plaintextBytes = decryptInPlace(message, ad).size();
        message.resize(plaintextBytes);
    }
    return message;
}

void CipherState::encryptInPlace(MutableBytes message, ByteView ad) {
    assert(key_ && message.size() >= tagBytes);
    const std::size_t plaintextBytes = message.size() - tagBytes;
    key_->seal(currentNonce(), ad, message.first(plaintextBytes), message.last<tagBytes>());
    advance();
}

MutableBytes CipherState::decryptInPlace(MutableBytes message, ByteView ad) {
    assert(key_);
    if (message.size() < tagBytes) {
        throw NoiseError::messageTooShort(tagBytes, message.size());
    }
    const MutableBytes plaintext = message.first(message.size() - tagBytes);
    if (!key_->open(currentNonce(), ad, plaintext, message.last<tagBytes>())) {
        throw NoiseError::decrypt("the authentication tag does not match");
    }
    advance();
    return plaintext;
}

platform::ChaCha20Poly1305::Nonce CipherState::currentNonce() const noexcept {
    platform::ChaCha20Poly1305::Nonce nonce{};
    storeLittleEndian64(std::span(nonce).last<8>(), nonce_);
    return nonce;
}

void CipherState::advance() noexcept {
    if (nonce_ == std::numeric_limits<std::uint64_t>::max()) {
        std::abort(); // the next message would use a nonce again, which gives both plaintexts away
    }
    ++nonce_;
}

// --- SymmetricState ---

SymmetricState::SymmetricState(std::string_view protocolName) {
    const ByteView bytes = asBytes(protocolName);
    if (bytes.size() <= hashBytes) {
        std::ranges::copy(bytes, h_.begin());
    } else {
        h_ = platform::sha256({bytes});
    }
    ck_ = SecretBytes(h_);
}

void SymmetricState::mixHash(ByteView data) {
    h_ = platform::sha256({h_, data});
}

void SymmetricState::mixKey(ByteView ikm) {
    std::vector<SecretBytes> outputs = noiseHKDF(ck_.reveal(), ikm, 2);
    cipher_ = CipherState(outputs[1]);
    ck_ = std::move(outputs[0]);
}

Bytes SymmetricState::encryptAndHash(ByteView plaintext) {
    Bytes ciphertext = cipher_.encryptWithAD(plaintext, h_);
    mixHash(ciphertext);
    return ciphertext;
}

Bytes SymmetricState::decryptAndHash(ByteView ciphertext) {
    Bytes plaintext = cipher_.decryptWithAD(ciphertext, h_);
    mixHash(ciphertext);
    return plaintext;
}

std::pair<CipherState, CipherState> SymmetricState::split() const {
    const std::vector<SecretBytes> keys = noiseHKDF(ck_.reveal(), {}, 2);
    return {CipherState(keys[0]), CipherState(keys[1])};
}

// --- NoiseTransport ---

NoiseTransport::NoiseTransport(platform::Sha256Digest handshakeHash, platform::PublicKey remoteStaticPublicKey,
                               CipherState sendCipher, CipherState receiveCipher) noexcept
    : handshakeHash_(handshakeHash),
      remoteStaticPublicKey_(remoteStaticPublicKey),
      sendCipher_(std::move(sendCipher)),
      receiveCipher_(std::move(receiveCipher)) {}

// --- NoiseHandshake ---

NoiseHandshake::NoiseHandshake(NoiseRole role, platform::PrivateKey staticKey, ByteView prologue,
                               KeyGenerator generateEphemeral)
    : role_(role),
      staticKey_(std::move(staticKey)),
      generateEphemeral_(std::move(generateEphemeral)),
      symmetric_(protocolName) {
    symmetric_.mixHash(prologue);
}

Bytes NoiseHandshake::writeMessage(ByteView payload) {
    requireTurn(role_, "writeMessage");
    Bytes out;
    switch (step_) {
    case Step::message1:
        writeE(out);
        break;
    case Step::message2:
        writeE(out);
        mixDH_ee();
        append(out, symmetric_.encryptAndHash(staticKey_.publicKey().raw()));
        mixDH_es();
        break;
    case Step::message3:
        append(out, symmetric_.encryptAndHash(staticKey_.publicKey().raw()));
        mixDH_se();
        break;
    case Step::complete:
        throw NoiseError::alreadyComplete();
    }
    append(out, symmetric_.encryptAndHash(payload));
    advance();
    return out;
}

void NoiseHandshake::requireTurn(NoiseRole writer, std::string_view op) const {
    if (step_ == Step::complete) {
        throw NoiseError::alreadyComplete();
    }
    const NoiseRole whoWrites = step_ == Step::message2 ? NoiseRole::responder : NoiseRole::initiator;
    if (whoWrites != writer) {
        throw NoiseError::wrongStep(role_, static_cast<int>(step_), op);
    }
}

void NoiseHandshake::advance() noexcept {
    step_ = static_cast<Step>(static_cast<int>(step_) + 1);
}

NoiseRole NoiseHandshake::other() const noexcept {
    return role_ == NoiseRole::initiator ? NoiseRole::responder : NoiseRole::initiator;
}

Bytes NoiseHandshake::readMessage(ByteView message) {
    requireTurn(other(), "readMessage");
    std::size_t cursor = 0;
    switch (step_) {
    case Step::message1:
        readE(message, cursor);
        break;
    case Step::message2:
        readE(message, cursor);
        mixDH_ee();
        readS(message, cursor);
        mixDH_es();
        break;
    case Step::message3:
        readS(message, cursor);
        mixDH_se();
        break;
    case Step::complete:
        throw NoiseError::alreadyComplete();
    }
    Bytes payload = symmetric_.decryptAndHash(message.subspan(cursor));
    advance();
    return payload;
}

NoiseTransport NoiseHandshake::finalize() && {
    if (step_ != Step::complete || !remoteStatic_) {
        throw NoiseError::notComplete();
    }
    auto [fromInitiator, fromResponder] = symmetric_.split();
    platform::Sha256Digest hash{};
    std::ranges::copy(symmetric_.h(), hash.begin());
    if (role_ == NoiseRole::initiator) {
        return {hash, *remoteStatic_, std::move(fromInitiator), std::move(fromResponder)};
    }
    return {hash, *remoteStatic_, std::move(fromResponder), std::move(fromInitiator)};
}

void NoiseHandshake::writeE(Bytes& out) {
    ephemeralKey_.emplace(generateEphemeral_());
    const auto raw = ephemeralKey_->publicKey().raw();
    append(out, raw);
    symmetric_.mixHash(raw);
}

void NoiseHandshake::readE(ByteView message, std::size_t& cursor) {
    const ByteView rest = message.subspan(cursor);
    if (rest.size() < publicKeyBytes) {
        throw NoiseError::messageTooShort(publicKeyBytes, rest.size());
    }
    remoteEphemeral_.emplace(rest.first<publicKeyBytes>());
    cursor += publicKeyBytes;
    symmetric_.mixHash(remoteEphemeral_->raw());
}

Bytes NoiseHandshake::readEncrypted(ByteView message, std::size_t& cursor, std::size_t plaintextLen) {
    const ByteView rest = message.subspan(cursor);
    const std::size_t need = plaintextLen + CipherState::tagBytes;
    if (rest.size() < need) {
        throw NoiseError::messageTooShort(need, rest.size());
    }
    cursor += need;
    Bytes plaintext = symmetric_.decryptAndHash(rest.first(need));
    if (plaintext.size() != plaintextLen) {
        throw NoiseError::malformedKeyMaterial("expected " + std::to_string(plaintextLen) + " plaintext bytes, got " +
                                               std::to_string(plaintext.size()));
    }
    return plaintext;
}

void NoiseHandshake::readS(ByteView message, std::size_t& cursor) {
    const Bytes raw = readEncrypted(message, cursor, publicKeyBytes);
    remoteStatic_ = platform::PublicKey::fromBytes(raw);
}

void NoiseHandshake::mixDH_ee() {
    if (!ephemeralKey_ || !remoteEphemeral_) {
        throw NoiseError::notComplete();
    }
    symmetric_.mixKey(ephemeralKey_->agree(*remoteEphemeral_).reveal());
}

void NoiseHandshake::mixDH_es() {
    if (role_ == NoiseRole::initiator) {
        if (!ephemeralKey_ || !remoteStatic_) {
            throw NoiseError::notComplete();
        }
        symmetric_.mixKey(ephemeralKey_->agree(*remoteStatic_).reveal());
    } else {
        if (!remoteEphemeral_) {
            throw NoiseError::notComplete();
        }
        symmetric_.mixKey(staticKey_.agree(*remoteEphemeral_).reveal());
    }
}

void NoiseHandshake::mixDH_se() {
    if (role_ == NoiseRole::initiator) {
        if (!remoteEphemeral_) {
            throw NoiseError::notComplete();
        }
        symmetric_.mixKey(staticKey_.agree(*remoteEphemeral_).reveal());
    } else {
        if (!ephemeralKey_ || !remoteStatic_) {
            throw NoiseError::notComplete();
        }
        symmetric_.mixKey(ephemeralKey_->agree(*remoteStatic_).reveal());
    }
}

} // namespace orlinth
