#include "OrlinthCore/SecureChannel/FrameBuffer.h"

#include "base/Endian.h"

#include <algorithm>
#include <utility>

namespace orlinth {

FrameBuffer::FrameBuffer(FrameBuffer&& other) noexcept
    : memory_(std::move(other.memory_)),
      capacity_(std::exchange(other.capacity_, 0)),
      bodySize_(std::exchange(other.bodySize_, 0)) {}

FrameBuffer& FrameBuffer::operator=(FrameBuffer&& other) noexcept {
    if (this != &other) {
        memory_ = std::move(other.memory_);
        capacity_ = std::exchange(other.capacity_, 0);
        bodySize_ = std::exchange(other.bodySize_, 0);
    }
    return *this;
}

void FrameBuffer::reserve(std::size_t bodyBytes) {
    if (prefixBytes + bodyBytes <= capacity_) {
        return;
    }
    auto larger = std::make_unique_for_overwrite<std::byte[]>(prefixBytes + bodyBytes);
    std::ranges::copy(body(), larger.get() + prefixBytes);
    memory_ = std::move(larger);
    capacity_ = prefixBytes + bodyBytes;
}

void FrameBuffer::resizeBody(std::size_t bytes) {
    reserve(bytes);
    bodySize_ = bytes;
}

MutableBytes FrameBuffer::body() noexcept {
    return memory_ ? MutableBytes(memory_.get() + prefixBytes, bodySize_) : MutableBytes();
}

ByteView FrameBuffer::body() const noexcept {
    return memory_ ? ByteView(memory_.get() + prefixBytes, bodySize_) : ByteView();
}

std::size_t FrameBuffer::bodyCapacity() const noexcept {
    return memory_ ? capacity_ - prefixBytes : 0;
}

ByteView FrameBuffer::frame() {
    reserve(bodySize_); // a buffer that was never written to has no room for the prefix yet
    storeBigEndian32(std::span<std::byte, prefixBytes>(memory_.get(), prefixBytes),
                     static_cast<std::uint32_t>(bodySize_));
    return {memory_.get(), prefixBytes + bodySize_};
}

} // namespace orlinth
