#pragma once

#include "base/Bytes.h"

namespace orlinth {

/// Compares key bytes in a time that depends on their length alone.
///
/// Different lengths are unequal at once (lengths are not secret); two empty inputs are equal.
[[nodiscard]] inline bool constantTimeEquals(ByteView a, ByteView b) noexcept {
    if (a.size() != b.size()) {
        return false;
    }
    // volatile, so that the compiler may not turn the loop into one with an early exit
    volatile unsigned accumulator = 0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        accumulator = accumulator | std::to_integer<unsigned>(a[i] ^ b[i]);
    }
    return accumulator == 0;
}

} // namespace orlinth
