#include "OrlinthCore/Pairing/PairingPayload.h"

#include "base/Base64.h"
#include "base/Json.h"
#include "base/Precondition.h"
#include "base/Text.h"

#include <utility>

namespace orlinth {
namespace {

constexpr const char* secretKey = "pairing_secret";

/// Overwrites all that the string has room for: what it held before may have been longer. Leaves it empty.
void wipeText(std::string& text) noexcept {
    text.resize(text.capacity());
    wipe(std::as_writable_bytes(std::span(text)));
    text.clear();
}

/// A payload as JSON, whose secret is wiped with it.
struct SecretJson {
    Json value;

    explicit SecretJson(Json json) noexcept : value(std::move(json)) {}
    SecretJson(const SecretJson&) = delete;
    SecretJson& operator=(const SecretJson&) = delete;
    ~SecretJson() {
        if (const auto member = value.find(secretKey); member != value.end() && member->is_string()) {
            wipeText(member->get_ref<std::string&>());
        }
    }
};

/// A short string is copied when it is moved, so the source is wiped in any case.
void moveFields(PairingPayload& to, PairingPayload& from) noexcept {
    to.version = from.version;
    to.peer_pubkey = std::move(from.peer_pubkey);
    to.peer_ip = std::move(from.peer_ip);
    to.peer_port = from.peer_port;
    to.peer_subnet = std::move(from.peer_subnet);
    to.peer_hostname = std::move(from.peer_hostname);
    to.peer_mac = std::move(from.peer_mac);
    wipeText(to.pairing_secret);
    to.pairing_secret = std::move(from.pairing_secret);
    wipeText(from.pairing_secret);
}

} // namespace

// --- errors ---

PairingError PairingError::randomBytesFailed(std::int32_t status) {
    return PairingError(status);
}

PairingError PairingError::encodingFailed(const std::string& text) {
    return {Case::encodingFailed, "JSON encode failed: ", text};
}

PairingError PairingError::decodingFailed(const std::string& text) {
    return {Case::decodingFailed, "JSON decode failed: ", text};
}

// --- the value ---

PairingPayload::PairingPayload(PairingPayload&& other) noexcept {
    moveFields(*this, other);
}

PairingPayload& PairingPayload::operator=(const PairingPayload& other) {
    PairingPayload copy(other);
    moveFields(*this, copy);
    return *this;
}

PairingPayload& PairingPayload::operator=(PairingPayload&& other) noexcept {
    if (this != &other) {
        moveFields(*this, other);
    }
    return *this;
}

PairingPayload::~PairingPayload() {
    wipeText(pairing_secret);
}

PairingPayload PairingPayload::mint(const platform::PublicKey& publicKey, const DeviceInfo& device,
                                    std::uint16_t port) {
    PairingPayload payload;
    payload.peer_pubkey = publicKey.base64();
    payload.peer_ip = device.ipv4;
    payload.peer_port = port;
    payload.peer_subnet = device.subnetCIDR;
    payload.peer_hostname = device.hostname;
    payload.peer_mac = device.macAddress;
    payload.pairing_secret = base64Encode(generatePairingSecret(secretBytes).reveal());
    return payload;
}

SecretBytes PairingPayload::generatePairingSecret(std::int64_t byteCount) {
    if (byteCount < 0) {
        preconditionFailed("a secret of fewer than no bytes");
    }
    SecretBytes secret(static_cast<std::size_t>(byteCount));
    try {
        platform::randomBytes(secret.revealMutable());
    } catch (const platform::CryptoError&) {
        // The library gives reasons, not numbers.
        constexpr std::int32_t noNumber = -1;
        throw PairingError::randomBytesFailed(noNumber);
    }
    return secret;
}

SecretBytes PairingPayload::secret() const {
    std::optional<Bytes> bytes = base64Decode(pairing_secret);
    if (!bytes) {
        throw PairingError::decodingFailed("pairing_secret is not Base64");
    }
    SecretBytes secret{ByteView(*bytes)};
    wipe(*bytes);
    if (secret.size() != secretBytes) {
        throw PairingError::decodingFailed("pairing_secret has " + std::to_string(secret.size()) +
                                           " bytes instead of " + std::to_string(secretBytes));
    }
    return secret;
}

// --- JSON ---

SecretBytes PairingPayload::jsonData() const {
    const std::pair<const char*, const std::string*> texts[] = {
        {"peer_pubkey", &peer_pubkey},     {"peer_ip", &peer_ip},   {"peer_subnet", &peer_subnet},
        {"peer_hostname", &peer_hostname}, {"peer_mac", &peer_mac}, {secretKey, &pairing_secret},
    };
    SecretJson json(Json{{"version", version}, {"peer_port", peer_port}});
    for (const auto& [key, text] : texts) {
        if (!isUtf8(*text)) {
            throw PairingError::encodingFailed(std::string(key) + " is not UTF-8");
        }
        json.value[key] = *text;
    }
    std::string text = compactJson(json.value);
    SecretBytes data(asBytes(text));
    wipeText(text);
    return data;
}

std::string PairingPayload::jsonString() const {
    return toText(jsonData().reveal());
}

PairingPayload PairingPayload::decode(ByteView jsonData) {
    try {
        const SecretJson json(parseJson(jsonData, maxJsonMessageValues));
        PairingPayload payload;
        payload.version = requireInt64(json.value, "version");
        payload.peer_pubkey = requireString(json.value, "peer_pubkey");
        payload.peer_ip = requireString(json.value, "peer_ip");
        payload.peer_port = requireInt64(json.value, "peer_port");
        payload.peer_subnet = requireString(json.value, "peer_subnet");
        payload.peer_hostname = requireString(json.value, "peer_hostname");
        payload.peer_mac = requireString(json.value, "peer_mac");
        payload.pairing_secret = requireString(json.value, secretKey);
        return payload;
    } catch (const JsonError& error) {
        throw PairingError::decodingFailed(describe(error));
    }
}

} // namespace orlinth
