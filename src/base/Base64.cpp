#include "base/Base64.h"

#include <array>

namespace orlinth {
namespace {

constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint8_t notInAlphabet = 0xff;

constexpr std::array<std::uint8_t, 256> makeReverseAlphabet() {
    std::array<std::uint8_t, 256> reverse{};
    reverse.fill(notInAlphabet);
    for (std::size_t i = 0; i < alphabet.size(); ++i) {
        reverse[static_cast<unsigned char>(alphabet[i])] = static_cast<std::uint8_t>(i);
    }
    return reverse;
}

constexpr auto reverseAlphabet = makeReverseAlphabet();

} // namespace

std::string base64Encode(ByteView bytes) {
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::size_t count = std::min<std::size_t>(3, bytes.size() - i);
        std::uint32_t group = 0;
        for (std::size_t k = 0; k < 3; ++k) {
            group = (group << 8) | (k < count ? std::to_integer<std::uint32_t>(bytes[i + k]) : 0);
        }
        for (std::size_t k = 0; k < 4; ++k) {
            text.push_back(k <= count ? alphabet[(group >> (18 - 6 * k)) & 0x3f] : '=');
        }
    }
    return text;
}

std::optional<Bytes> base64Decode(std::string_view text) {
    if (text.size() % 4 != 0) {
        return std::nullopt;
    }
    Bytes bytes;
    bytes.reserve(text.size() / 4 * 3);
    for (std::size_t i = 0; i < text.size(); i += 4) {
        std::string_view quad = text.substr(i, 4);
        const bool isLast = i + 4 == text.size();
        while (isLast && quad.size() > 2 && quad.back() == '=') {
            quad.remove_suffix(1);
        }
        std::uint32_t group = 0;
        for (const char character : quad) {
            const std::uint8_t value = reverseAlphabet[static_cast<unsigned char>(character)];
            if (value == notInAlphabet) {
                return std::nullopt;
            }
            group = (group << 6) | value;
        }
        const std::size_t count = quad.size() - 1;
        group <<= 6 * (4 - quad.size());
        if ((group & (0xff'ffffU >> (8 * count))) != 0) {
            return std::nullopt;
        }
        for (std::size_t k = 0; k < count; ++k) {
            bytes.push_back(static_cast<std::byte>(group >> (16 - 8 * k)));
        }
    }
    return bytes;
}

} // namespace orlinth
