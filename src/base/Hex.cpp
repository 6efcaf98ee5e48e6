#include "base/Hex.h"

#include <charconv>

namespace orlinth {

std::string hexEncode(ByteView bytes) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const std::byte byte : bytes) {
        text.push_back(digits[std::to_integer<std::size_t>(byte >> 4)]);
        text.push_back(digits[std::to_integer<std::size_t>(byte & std::byte{0x0f})]);
    }
    return text;
}

std::optional<Bytes> hexDecode(std::string_view text) {
    if (text.size() % 2 != 0) {
        return std::nullopt;
    }
    Bytes bytes;
    bytes.reserve(text.size() / 2);
    for (std::size_t i = 0; i < text.size(); i += 2) {
        unsigned value = 0;
        const char* end = text.data() + i + 2;
        const auto [stop, error] = std::from_chars(text.data() + i, end, value, 16);
        if (error != std::errc() || stop != end) {
            return std::nullopt;
        }
        bytes.push_back(static_cast<std::byte>(value));
    }
    return bytes;
}

} // namespace orlinth
