#pragma once

#include <cstddef>

namespace orlinth {

/// Memory for secrets, on pages of its own: not written to swap and left out of core dumps, as far as the system
/// allows. That it does not is no failure; the limit on locked memory is often small.
///
/// A secret of up to `largestSlot` bytes shares its pages with others, so that one costs no system call. The pages stay
/// with the process for the next ones: as many as its secrets took at the most. Any thread.
class SecretMemory {
public:
    static constexpr std::size_t largestSlot = 2048;

    /// So many zero bytes; null for none. @throws std::bad_alloc
    [[nodiscard]] static std::byte* take(std::size_t size);
    /// Wipes them and takes them back. `size` as it was asked for; null is nothing.
    static void giveBack(std::byte* memory, std::size_t size) noexcept;
};

} // namespace orlinth
