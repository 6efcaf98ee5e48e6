#pragma once

#include "base/Bytes.h"

#include <memory>

namespace orlinth {

/// Memory for one wire frame, used again and again: prefix, type byte, payload and tag lie in their places, so a
/// payload is read, sealed and sent (or received, opened and written) without being copied.
///
///     | 4 length prefix | body: up to WireConnection::maxFrameBytes |
///
/// Fresh memory is not zeroed. It grows as it is needed and keeps its size. Not thread-safe.
class FrameBuffer {
public:
    static constexpr std::size_t prefixBytes = 4;

    FrameBuffer() noexcept = default;
    /// Leaves the other one as if new.
    FrameBuffer(FrameBuffer&& other) noexcept;
    FrameBuffer& operator=(FrameBuffer&& other) noexcept;

    /// Makes room for a body of `bytes`, keeping what the present body holds, and makes that its size.
    void resizeBody(std::size_t bytes);
    [[nodiscard]] MutableBytes body() noexcept;
    [[nodiscard]] ByteView body() const noexcept;
    /// Room that a body may grow to before memory is taken anew.
    [[nodiscard]] std::size_t bodyCapacity() const noexcept;
    /// Writes the prefix for the present body and returns the frame, prefix first.
    [[nodiscard]] ByteView frame();

private:
    void reserve(std::size_t bodyBytes);

    std::unique_ptr<std::byte[]> memory_;
    std::size_t capacity_ = 0; // of memory_, prefix included
    std::size_t bodySize_ = 0;
};

} // namespace orlinth
