#include "OrlinthCore/Pairing/PairIntroduction.h"

#include "base/Text.h"
#include "platform/IpAddress.h"

#include <algorithm>
#include <array>
#include <limits>

namespace orlinth {
namespace {

using platform::Ipv4Address;
using platform::Ipv6Address;
using platform::PrivateKey;
using platform::PublicKey;

[[noreturn]] void refuse(const char* key, const std::string& why) {
    throw PairIntroductionError(std::string("key \"") + key + "\": " + why);
}

std::string checkedText(const char* key, std::string text, std::size_t maxBytes) {
    if (text.size() > maxBytes) {
        refuse(key, "longer than " + std::to_string(maxBytes) + " bytes");
    }
    if (hasControlCharacter(text)) {
        refuse(key, "holds a control character");
    }
    return text;
}

/// A text of an introduction.
struct Field {
    const char* key;
    std::size_t maxBytes;
};

/// One that may be absent, and where it goes.
struct OptionalField {
    Field field;
    std::string PeerRecord::* text;
};

constexpr std::size_t keyTextBytes = 44;
constexpr Field keyField{"peer_pubkey", keyTextBytes};
constexpr Field addressField{"peer_ip", PairIntroduction::maxFieldBytes};
constexpr Field nameField{"peer_hostname", PairIntroduction::maxHostnameBytes};
constexpr std::array optionalFields{
    OptionalField{{"peer_subnet", PairIntroduction::maxFieldBytes}, &PeerRecord::peer_subnet},
    OptionalField{{"peer_mac", PairIntroduction::maxFieldBytes}, &PeerRecord::peer_mac},
    OptionalField{{"peer_fcm_token", PairIntroduction::maxTokenBytes}, &PeerRecord::peer_fcm_token},
    OptionalField{{"peer_android", PairIntroduction::maxFieldBytes}, &PeerRecord::peer_android},
};

/// What somebody says of himself as JSON. @throws JsonError
class JsonClaims {
public:
    explicit JsonClaims(const Json& json) : json_(json) {}
    [[nodiscard]] std::string required(const Field& field) const { return requireString(json_, field.key); }
    [[nodiscard]] std::string optional(const Field& field) const {
        return optionalString(json_, field.key).value_or("");
    }
    [[nodiscard]] std::int64_t port() const { return requireInt64(json_, "peer_port"); }

private:
    const Json& json_;
};

/// The same as a record.
class RecordClaims {
public:
    explicit RecordClaims(const PeerRecord& record) : fields_(record.toJson()), port_(record.peer_port) {}
    [[nodiscard]] std::string required(const Field& field) const { return toUtf8(requireString(fields_, field.key)); }
    [[nodiscard]] std::string optional(const Field& field) const { return required(field); }
    [[nodiscard]] std::int64_t port() const { return port_; }

private:
    Json fields_;
    std::int64_t port_;
};

template <typename Claims>
std::string requiredText(const Claims& claims, const Field& field) {
    return checkedText(field.key, claims.required(field), field.maxBytes);
}

/// "" where it cannot be used, with the objection in `leftOut`.
template <typename Claims>
std::string optionalText(const Claims& claims, const Field& field, std::vector<std::string>& leftOut) {
    try {
        return checkedText(field.key, claims.optional(field), field.maxBytes);
    } catch (const JsonError& error) {
        leftOut.push_back(error.description());
    } catch (const PairIntroductionError& error) {
        leftOut.push_back(error.why());
    }
    return {};
}

void checkKey(const PeerKey& peerKey, const PublicKey& ownKey) {
    const std::optional<PublicKey> key = PublicKey::fromBase64(peerKey.text());
    if (!key) {
        refuse("peer_pubkey", "not the Base64 of 32 bytes");
    }
    if (const std::optional<std::string> objection = objectionToKey(*key, ownKey)) {
        refuse("peer_pubkey", *objection);
    }
}

template <typename Claims>
PairIntroduction::Decoded decodedOf(const Claims& claims, const std::string& connectionAddress,
                                    const PublicKey& ownKey) {
    PairIntroduction::Decoded decoded;
    PeerRecord& record = decoded.record;
    record.peer_pubkey = PeerKey(requiredText(claims, keyField));
    checkKey(record.peer_pubkey, ownKey);
    record.peer_ip = requiredText(claims, addressField);
    if (trimmed(record.peer_ip).empty() && !connectionAddress.empty()) {
        record.peer_ip = connectionAddress;
        decoded.hasConnectionAddress = true;
    }
    if (const std::optional<std::string> objection = objectionToAddress(record.peer_ip)) {
        refuse("peer_ip", *objection);
    }
    record.peer_port = claims.port();
    if (record.peer_port < 1 || record.peer_port > std::numeric_limits<std::uint16_t>::max()) {
        refuse("peer_port", "not between 1 and 65535");
    }
    record.peer_hostname = requiredText(claims, nameField);
    if (trimmed(record.peer_hostname).empty()) {
        refuse("peer_hostname", "blank");
    }
    for (const OptionalField& optional : optionalFields) {
        record.*optional.text = optionalText(claims, optional.field, decoded.leftOut);
    }
    record.self_pubkey = ownKey.peerKey();
    return decoded;
}

/// Whether the 32 bytes, least significant first, are a number below 2^255 - 19, the field's prime (RFC 7748 §5).
bool isCanonical(const PublicKey& key) {
    const auto byte = [&key](std::size_t i) { return std::to_integer<unsigned>(key.raw()[i]); };
    if (byte(31) != 0x7F) {
        return byte(31) < 0x7F;
    }
    for (std::size_t i = 30; i > 0; --i) {
        if (byte(i) != 0xFF) {
            return true;
        }
    }
    return byte(0) < 0xED;
}

bool isOfLowOrder(const PublicKey& key) {
    const PrivateKey fresh = PrivateKey::generate();
    try {
        static_cast<void>(fresh.agree(key));
        return false;
    } catch (const platform::CryptoError&) {
        return true;
    }
}

std::optional<std::string> objectionTo(const Ipv4Address& address) {
    if (address[0] == 0) {
        return "an unspecified address";
    }
    if (address[0] >= 224 && address[0] <= 239) {
        return "a multicast address";
    }
    if (address == Ipv4Address{255, 255, 255, 255}) {
        return "the broadcast address";
    }
    return std::nullopt;
}

std::optional<std::string> objectionTo(const Ipv6Address& address) {
    const auto& bytes = address.bytes;
    const auto isZero = [&bytes](std::size_t count) {
        return std::ranges::all_of(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(count),
                                   [](std::uint8_t byte) { return byte == 0; });
    };
    if (isZero(bytes.size())) {
        return "an unspecified address";
    }
    if (bytes[0] == 0xFF) {
        return "a multicast address";
    }
    const bool isLoopback = isZero(15) && bytes[15] == 1;
    if (isZero(10) && ((bytes[10] == 0xFF && bytes[11] == 0xFF) || (isZero(12) && !isLoopback))) {
        return "an IPv4 address in the form of IPv6"; // mapped, or compatible (RFC 4291 §2.5.5)
    }
    const bool isLinkLocal = bytes[0] == 0xFE && (bytes[1] & 0xC0) == 0x80;
    if (!address.zone.empty() && !isLinkLocal) {
        return "an interface is named, but the address is not link-local";
    }
    return std::nullopt;
}

} // namespace

PairIntroduction::Decoded PairIntroduction::decodeFrom(const std::string& connectionAddress, ByteView plaintext,
                                                       const PublicKey& ownKey) {
    try {
        const Json json = parseJson(plaintext, maxJsonMessageValues);
        return decodedOf(JsonClaims(json), connectionAddress, ownKey);
    } catch (const JsonError& error) {
        throw PairIntroductionError(error.description());
    }
}

PeerRecord PairIntroduction::decode(ByteView plaintext, const PublicKey& ownKey) {
    return decodeFrom("", plaintext, ownKey).record;
}

PairIntroduction::Decoded PairIntroduction::check(const PeerRecord& claimed, const PublicKey& ownKey) {
    return decodedOf(RecordClaims(claimed), "", ownKey);
}

Bytes PairIntroduction::encode(const PeerRecord& self) {
    const Json json{
        {"peer_pubkey", self.peer_pubkey},       {"peer_ip", self.peer_ip},           {"peer_port", self.peer_port},
        {"peer_hostname", self.peer_hostname},   {"peer_subnet", self.peer_subnet},   {"peer_mac", self.peer_mac},
        {"peer_fcm_token", self.peer_fcm_token}, {"peer_android", self.peer_android},
    };
    return toBytes(compactJson(json));
}

std::optional<std::string> objectionToKey(const PublicKey& key, const PublicKey& ownKey) {
    if (key == ownKey) {
        return "this computer's own key";
    }
    if (!isCanonical(key)) {
        return "not the canonical form of a key";
    }
    if (isOfLowOrder(key)) {
        return "a point of low order";
    }
    return std::nullopt;
}

std::optional<std::string> objectionToAddress(const std::string& address) {
    const auto parsed = platform::parseIpAddress(address);
    if (!parsed) {
        return "not an IPv4 or IPv6 address";
    }
    return std::visit([](const auto& kind) { return objectionTo(kind); }, *parsed);
}

} // namespace orlinth
