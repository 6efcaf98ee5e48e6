#include "base/Hex.h"

namespace orlinth {
namespace {

void appendDigits(std::string& text, std::byte byte, HexCase letters) {
    const std::string_view digits = letters == HexCase::upper ? "0123456789ABCDEF" : "0123456789abcdef";
    text.push_back(digits[std::to_integer<std::size_t>(byte >> 4)]);
    text.push_back(digits[std::to_integer<std::size_t>(byte & std::byte{0x0f})]);
}

} // namespace

std::string hexEncode(ByteView bytes, HexCase letters) {
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const std::byte byte : bytes) {
        appendDigits(text, byte, letters);
    }
    return text;
}

std::string shortHex(std::byte byte) {
    const std::string text = hexEncode(ByteView(&byte, 1));
    return text.starts_with('0') ? text.substr(1) : text;
}

std::optional<unsigned> hexDigit(char digit) noexcept {
    if (digit >= '0' && digit <= '9') {
        return static_cast<unsigned>(digit - '0');
    }
    const int lower = digit | 0x20; // of letters; nothing else becomes one of these by it
    if (lower >= 'a' && lower <= 'f') {
        return static_cast<unsigned>(lower - 'a' + 10);
    }
    return std::nullopt;
}

void appendPercentEncoded(std::string& text, unsigned char byte, HexCase letters) {
    text.push_back('%');
    appendDigits(text, std::byte{byte}, letters);
}

std::optional<Bytes> hexDecode(std::string_view text) {
    if (text.size() % 2 != 0) {
        return std::nullopt;
    }
    Bytes bytes;
    bytes.reserve(text.size() / 2);
    for (std::size_t i = 0; i < text.size(); i += 2) {
        const std::optional<unsigned> high = hexDigit(text[i]);
        const std::optional<unsigned> low = hexDigit(text[i + 1]);
        if (!high || !low) {
            return std::nullopt;
        }
        bytes.push_back(static_cast<std::byte>(*high * 16 + *low));
    }
    return bytes;
}

} // namespace orlinth
