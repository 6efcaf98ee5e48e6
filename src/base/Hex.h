#pragma once

#include "base/Bytes.h"

#include <optional>

namespace orlinth {

/// Two lower-case digits a byte.
[[nodiscard]] std::string hexEncode(ByteView bytes);

/// The bytes of a text of digit pairs in either case; nothing where it is not one.
[[nodiscard]] std::optional<Bytes> hexDecode(std::string_view text);

} // namespace orlinth
