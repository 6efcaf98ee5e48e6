#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace orlinth::host {

/// The bytes that a size as people write it means: "512M", "10 GiB", "1.5G", "700MB", "4096". K, M, G and T, alone or
/// with "iB", are powers of 1024; with "B" they are powers of 1000; any letter case. Nothing for any other text, and
/// for what is more than 2^63 - 1.
[[nodiscard]] std::optional<std::int64_t> parseSize(std::string_view text);

} // namespace orlinth::host
