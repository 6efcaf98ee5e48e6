#pragma once

#include "base/Bytes.h"

namespace orlinth {

/// The text of a random UUID (RFC 4122 version 4): upper-case hexadecimal, 8-4-4-4-12.
///
/// `random` are sixteen random bytes; the version and variant bits are set here.
[[nodiscard]] std::string uuidText(std::span<const std::byte, 16> random);

} // namespace orlinth
