#include "base/SecretBytes.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace orlinth {

void wipe(MutableBytes memory) noexcept {
    if (!memory.empty()) {
        ::explicit_bzero(memory.data(), memory.size());
    }
}

SecretBytes::SecretBytes(std::size_t size) : bytes_(std::make_unique<std::byte[]>(size)), size_(size) {}

SecretBytes::SecretBytes(ByteView bytes) : SecretBytes(bytes.size()) {
    std::ranges::copy(bytes, bytes_.get());
}

SecretBytes::SecretBytes(SecretBytes&& other) noexcept
    : bytes_(std::move(other.bytes_)), size_(std::exchange(other.size_, 0)) {}

SecretBytes& SecretBytes::operator=(SecretBytes&& other) noexcept {
    if (this != &other) {
        wipe(revealMutable());
        bytes_ = std::move(other.bytes_);
        size_ = std::exchange(other.size_, 0);
    }
    return *this;
}

SecretBytes::~SecretBytes() {
    wipe(revealMutable());
}

} // namespace orlinth
