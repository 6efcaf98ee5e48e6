#pragma once

#include "base/Bytes.h"

namespace orlinth {

/// Writes `value` most significant byte first, as length prefixes travel.
inline void storeBigEndian32(std::span<std::byte, 4> into, std::uint32_t value) noexcept {
    for (std::size_t i = 0; i < 4; ++i) {
        into[i] = static_cast<std::byte>(value >> (24 - 8 * i));
    }
}

/// Reads four bytes, most significant first.
[[nodiscard]] inline std::uint32_t loadBigEndian32(std::span<const std::byte, 4> from) noexcept {
    std::uint32_t value = 0;
    for (const std::byte byte : from) {
        value = (value << 8) | std::to_integer<std::uint32_t>(byte);
    }
    return value;
}

/// Writes `value` least significant byte first, as Noise encodes nonces for ChaCha20-Poly1305 (rev. 34 §12.3).
inline void storeLittleEndian64(std::span<std::byte, 8> into, std::uint64_t value) noexcept {
    for (std::size_t i = 0; i < 8; ++i) {
        into[i] = static_cast<std::byte>(value >> (8 * i));
    }
}

} // namespace orlinth
