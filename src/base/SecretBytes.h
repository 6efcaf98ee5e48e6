#pragma once

#include "base/Bytes.h"

namespace orlinth {

/// Overwrites memory in a way that the compiler may not leave out.
void wipe(MutableBytes memory) noexcept;

/// An owned secret (a private key, a shared secret, an access token): move-only, wiped when it goes, and meanwhile in
/// memory that is neither swapped out nor dumped, where the system allows that (SecretMemory).
///
/// It has no comparison and no printing on purpose. Who needs the bytes says so with reveal().
class SecretBytes {
public:
    SecretBytes() noexcept = default;
    /// `size` zero bytes, to be filled through revealMutable().
    explicit SecretBytes(std::size_t size);
    /// Copies `bytes`; wiping the original is the caller's business.
    explicit SecretBytes(ByteView bytes);
    SecretBytes(SecretBytes&& other) noexcept;
    SecretBytes& operator=(SecretBytes&& other) noexcept;
    SecretBytes(const SecretBytes&) = delete;
    SecretBytes& operator=(const SecretBytes&) = delete;
    ~SecretBytes();

    [[nodiscard]] std::size_t size() const noexcept { return size_; }
    [[nodiscard]] bool empty() const noexcept { return size_ == 0; }
    [[nodiscard]] ByteView reveal() const noexcept { return {bytes_, size_}; }
    [[nodiscard]] MutableBytes revealMutable() noexcept { return {bytes_, size_}; }

private:
    std::byte* bytes_ = nullptr; // of SecretMemory, and ours; never reallocated, so that no copy is left behind
    std::size_t size_ = 0;
};

} // namespace orlinth
