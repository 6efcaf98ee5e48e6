#include "base/Uuid.h"

#include "base/Hex.h"

#include <algorithm>
#include <array>

namespace orlinth {

std::string uuidText(std::span<const std::byte, 16> random) {
    std::array<std::byte, 16> bytes{};
    std::ranges::copy(random, bytes.begin());
    bytes[6] = (bytes[6] & std::byte{0x0f}) | std::byte{0x40};
    bytes[8] = (bytes[8] & std::byte{0x3f}) | std::byte{0x80};

    std::string text = hexEncode(bytes, HexCase::upper);
    for (const std::size_t place : std::array<std::size_t, 4>{8, 13, 18, 23}) {
        text.insert(place, 1, '-');
    }
    return text;
}

} // namespace orlinth
