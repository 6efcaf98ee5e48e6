#pragma once

#include "base/Bytes.h"

#include <optional>

namespace orlinth {

/// Standard, padded Base64 (RFC 4648 §4).
[[nodiscard]] std::string base64Encode(ByteView bytes);

/// The bytes of a standard, padded Base64 text; nothing where it is not one: a foreign character, white space,
/// missing padding, or bits set behind the end (RFC 4648 §3.5), so that a key has exactly one text.
[[nodiscard]] std::optional<Bytes> base64Decode(std::string_view text);

} // namespace orlinth
