#pragma once

#include <cstddef>
#include <string_view>

namespace orlinth::cli {

/// What a person types behind a question that ends in "[y/N]".
struct Answer {
    /// Bytes; no more are read.
    static constexpr std::size_t longest = 1024;

    /// "y" or "yes" in any letter case; anything else, nothing included, is a no.
    [[nodiscard]] static bool isYes(std::string_view line);
};

} // namespace orlinth::cli
