#include "base/SecretBytes.h"

#include "base/SecretMemory.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace orlinth {

void wipe(MutableBytes memory) noexcept {
    if (!memory.empty()) {
        ::explicit_bzero(memory.data(), memory.size());
    }
}

SecretBytes::SecretBytes(std::size_t size) : bytes_(SecretMemory::take(size)), size_(size) {}

SecretBytes::SecretBytes(ByteView bytes) : SecretBytes(bytes.size()) {
    std::ranges::copy(bytes, bytes_);
}

SecretBytes::SecretBytes(SecretBytes&& other) noexcept
    : bytes_(std::exchange(other.bytes_, nullptr)), size_(std::exchange(other.size_, 0)) {}

SecretBytes& SecretBytes::operator=(SecretBytes&& other) noexcept {
    if (this != &other) {
        SecretMemory::giveBack(bytes_, size_);
        bytes_ = std::exchange(other.bytes_, nullptr);
        size_ = std::exchange(other.size_, 0);
    }
    return *this;
}

SecretBytes::~SecretBytes() {
    SecretMemory::giveBack(bytes_, size_);
}

} // namespace orlinth
