#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace orlinth {

/// An owned run of public bytes. Keys and secrets have types of their own (SecretBytes, platform/Crypto.h).
using Bytes = std::vector<std::byte>;

/// Bytes that somebody else owns; valid only as long as they are.
using ByteView = std::span<const std::byte>;

/// Bytes that somebody else owns and that the callee fills or changes in place.
using MutableBytes = std::span<std::byte>;

/// The bytes of a text, without copying it.
[[nodiscard]] inline ByteView asBytes(std::string_view text) noexcept {
    return std::as_bytes(std::span(text.data(), text.size()));
}

/// A copy of the bytes as text; whether they are UTF-8 is not looked at.
[[nodiscard]] inline std::string toText(ByteView bytes) {
    std::string text(bytes.size(), '\0');
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        text[i] = static_cast<char>(bytes[i]);
    }
    return text;
}

/// An owned copy.
[[nodiscard]] inline Bytes toBytes(ByteView bytes) {
    return {bytes.begin(), bytes.end()};
}
[[nodiscard]] inline Bytes toBytes(std::string_view text) {
    return toBytes(asBytes(text));
}

/// The pieces one after the other.
[[nodiscard]] inline Bytes concatenate(std::initializer_list<ByteView> pieces) {
    std::size_t total = 0;
    for (const ByteView piece : pieces) {
        total += piece.size();
    }
    Bytes all;
    all.reserve(total);
    for (const ByteView piece : pieces) {
        all.insert(all.end(), piece.begin(), piece.end());
    }
    return all;
}

} // namespace orlinth
