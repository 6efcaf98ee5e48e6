#include "base/Uuid.h"

#include <algorithm>
#include <array>

namespace orlinth {

std::string uuidText(std::span<const std::byte, 16> random) {
    std::array<std::byte, 16> bytes{};
    std::ranges::copy(random, bytes.begin());
    bytes[6] = (bytes[6] & std::byte{0x0f}) | std::byte{0x40};
    bytes[8] = (bytes[8] & std::byte{0x3f}) | std::byte{0x80};

    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string text;
    text.reserve(36);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) {
            text.push_back('-');
        }
        text.push_back(digits[std::to_integer<std::size_t>(bytes[i] >> 4)]);
        text.push_back(digits[std::to_integer<std::size_t>(bytes[i] & std::byte{0x0f})]);
    }
    return text;
}

} // namespace orlinth
