#pragma once

#include <compare>
#include <cstdint>
#include <ostream>

namespace orlinth {

/// A place in a file: how many bytes lie before it. A type of its own, so that it is not taken for a size.
class ByteOffset {
public:
    constexpr ByteOffset() noexcept = default; ///< the start
    constexpr explicit ByteOffset(std::int64_t bytesBefore) noexcept : bytesBefore_(bytesBefore) {}

    /// As files, JSON and system calls have it.
    [[nodiscard]] constexpr std::int64_t bytesBefore() const noexcept { return bytesBefore_; }

    constexpr ByteOffset& operator+=(std::int64_t bytes) noexcept {
        bytesBefore_ += bytes;
        return *this;
    }
    [[nodiscard]] friend constexpr ByteOffset operator+(ByteOffset from, std::int64_t bytes) noexcept {
        return from += bytes;
    }
    /// How many bytes lie between the two.
    [[nodiscard]] friend constexpr std::int64_t operator-(ByteOffset to, ByteOffset from) noexcept {
        return to.bytesBefore_ - from.bytesBefore_;
    }

    auto operator<=>(const ByteOffset&) const = default;

    /// For the messages of tests.
    friend std::ostream& operator<<(std::ostream& out, ByteOffset value) { return out << value.bytesBefore_; }

private:
    std::int64_t bytesBefore_ = 0;
};

} // namespace orlinth
