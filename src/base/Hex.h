#pragma once

#include "base/Bytes.h"

#include <optional>

namespace orlinth {

enum class HexCase { lower, upper };

/// Two digits a byte.
[[nodiscard]] std::string hexEncode(ByteView bytes, HexCase letters = HexCase::lower);

/// A byte without a leading zero: "0", "a", "10".
[[nodiscard]] std::string shortHex(std::byte byte);

/// The value of one digit in either case; nothing where it is none.
[[nodiscard]] std::optional<unsigned> hexDigit(char digit) noexcept;

/// Appends a byte as "%41": what URIs, file URLs and addresses of D-Bus do with what they cannot have as it is.
void appendPercentEncoded(std::string& text, unsigned char byte, HexCase letters);

/// The bytes of a text of digit pairs in either case; nothing where it is not one.
[[nodiscard]] std::optional<Bytes> hexDecode(std::string_view text);

} // namespace orlinth
