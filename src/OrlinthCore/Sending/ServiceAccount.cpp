#include "OrlinthCore/Sending/ServiceAccount.h"

#include "OrlinthCore/Sending/FcmWake.h"
#include "base/Base64.h"
#include "base/Hex.h"
#include "base/Json.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string_view>

namespace orlinth {
namespace {

MutableBytes memoryOf(std::string& text) {
    return std::as_writable_bytes(std::span(text.data(), text.size()));
}

/// A text member as a secret; what the JSON value holds of it is wiped.
SecretBytes takeSecret(Json& object, const char* key) {
    std::string copy = requireString(object, key);
    SecretBytes secret(asBytes(copy));
    wipe(memoryOf(copy));
    wipe(memoryOf(object.at(key).get_ref<std::string&>()));
    return secret;
}

/// Walks DER (X.690 §8.1), one element after the other.
class DerReader {
public:
    explicit DerReader(ByteView data) : data_(data) {}

    /// Goes to the beginning of the element's contents; returns them.
    ByteView enter(std::uint8_t tag) {
        if (position_ >= data_.size() || octetAt(position_) != tag) {
            throw FcmWake::Error::privateKeyImport("expected tag 0x" + shortHex(std::byte{tag}) + " at " +
                                                   std::to_string(position_));
        }
        ++position_;
        const std::size_t length = readLength();
        return data_.subspan(position_, length);
    }

    /// Goes past the element.
    void skip(std::uint8_t tag) {
        const ByteView contents = enter(tag);
        position_ += contents.size();
    }

private:
    std::uint8_t octetAt(std::size_t position) const { return std::to_integer<std::uint8_t>(data_[position]); }

    [[noreturn]] static void truncated(std::size_t lengthPosition) {
        throw FcmWake::Error::privateKeyImport("truncated length at " + std::to_string(lengthPosition));
    }

    /// Positions in errors are those of the first length octet.
    std::size_t readLength() {
        constexpr std::uint8_t longForm = 0x80;
        const std::size_t start = position_;
        if (start >= data_.size()) {
            truncated(start);
        }
        const std::uint8_t first = octetAt(position_++);
        std::uint64_t length = first;
        if ((first & longForm) != 0) {
            length = readLongForm(first & 0x7fU, start);
        }
        if (length > data_.size() - position_) {
            truncated(start);
        }
        return static_cast<std::size_t>(length);
    }

    std::uint64_t readLongForm(std::size_t count, std::size_t start) {
        // No octets at all is the indefinite form; more than eight make a number that nothing can hold.
        if (count == 0 || count > sizeof(std::uint64_t)) {
            throw FcmWake::Error::privateKeyImport("bad long-form length");
        }
        if (count > data_.size() - position_) {
            truncated(start);
        }
        std::uint64_t length = 0;
        for (std::size_t i = 0; i < count; ++i) {
            length = (length << 8U) | octetAt(position_++);
        }
        return length;
    }

    ByteView data_;
    std::size_t position_ = 0;
};

} // namespace

ServiceAccount ServiceAccount::fromJson(ByteView text) {
    Json json = parseJson(text);
    ServiceAccount account;
    account.project_id = requireString(json, "project_id");
    account.private_key = takeSecret(json, "private_key");
    account.private_key_id = requireString(json, "private_key_id");
    account.client_email = requireString(json, "client_email");
    account.token_uri = requireString(json, "token_uri");
    return account;
}

SecretBytes pkcs8DER(ByteView pem) {
    const std::string_view text(reinterpret_cast<const char*>(pem.data()), pem.size());
    SecretBytes base64(pem.size()); // as large as it can get, so that it never moves
    std::size_t used = 0;
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = std::min(text.find_first_of("\r\n", start), text.size());
        const ByteView line = pem.subspan(start, end - start);
        if (!text.substr(start, end - start).starts_with("-----")) {
            std::ranges::copy(line, base64.revealMutable().subspan(used).begin());
            used += line.size();
        }
        start = end + 1;
    }
    const ByteView body = base64.reveal().first(used);
    std::optional<Bytes> decoded = base64Decode({reinterpret_cast<const char*>(body.data()), body.size()});
    if (!decoded) {
        throw FcmWake::Error::privateKeyImport("PEM body not valid base64");
    }
    SecretBytes der((ByteView(*decoded)));
    wipe(*decoded);
    return der;
}

SecretBytes unwrapPKCS8(ByteView der) {
    constexpr std::uint8_t integer = 0x02;
    constexpr std::uint8_t octetString = 0x04;
    constexpr std::uint8_t sequence = 0x30;
    DerReader reader(der);
    reader.enter(sequence);
    reader.skip(integer);
    reader.skip(sequence);
    return SecretBytes(reader.enter(octetString));
}

} // namespace orlinth
