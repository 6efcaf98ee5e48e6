#include "base/SecretMemory.h"

#include "base/Mutex.h"
#include "base/SecretBytes.h"

#include <array>
#include <bit>
#include <cstring>
#include <new>
#include <sys/mman.h>

#if defined(__SANITIZE_ADDRESS__)
#define ORLINTH_CHECKS_ADDRESSES
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ORLINTH_CHECKS_ADDRESSES
#endif
#endif
#ifdef ORLINTH_CHECKS_ADDRESSES
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(address, size) static_cast<void>(0)
#define ASAN_UNPOISON_MEMORY_REGION(address, size) static_cast<void>(0)
#endif

namespace orlinth {
namespace {

/// A cache line: two secrets never share one.
constexpr std::size_t smallestSlot = 64;
/// What is asked of the system at a time for slots of one size.
constexpr std::size_t blockBytes = 16384;
constexpr std::size_t sizes = static_cast<std::size_t>(std::countr_zero(SecretMemory::largestSlot / smallestSlot)) + 1;
static_assert(smallestSlot << (sizes - 1) == SecretMemory::largestSlot);
static_assert(blockBytes % SecretMemory::largestSlot == 0);

/// Zero bytes on pages of their own. @throws std::bad_alloc
std::byte* newPages(std::size_t size) {
    void* const pages = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED) {
        throw std::bad_alloc();
    }
    static_cast<void>(::mlock(pages, size));
    static_cast<void>(::madvise(pages, size, MADV_DONTDUMP));
    return static_cast<std::byte*>(pages);
}

/// The slots of one size that are free, each with the next one's address in its first bytes and zeros behind.
///
/// One list for the process, as with any memory that everybody takes from.
class Slots {
public:
    [[nodiscard]] std::byte* take(std::size_t slotBytes, [[maybe_unused]] std::size_t size) {
        const MutexLock guard(lock_);
        if (free_ == nullptr) {
            addBlock(slotBytes);
        }
        std::byte* const slot = free_;
        ASAN_UNPOISON_MEMORY_REGION(slot, sizeof free_);
        std::memcpy(&free_, slot, sizeof free_);
        std::memset(slot, 0, sizeof free_);
        ASAN_POISON_MEMORY_REGION(slot, slotBytes);
        ASAN_UNPOISON_MEMORY_REGION(slot, size);
        return slot;
    }

    /// A slot that was wiped.
    void giveBack(std::byte* slot, [[maybe_unused]] std::size_t slotBytes) noexcept {
        const MutexLock guard(lock_);
        ASAN_UNPOISON_MEMORY_REGION(slot, sizeof free_);
        std::memcpy(slot, &free_, sizeof free_);
        ASAN_POISON_MEMORY_REGION(slot, slotBytes);
        free_ = slot;
    }

private:
    void addBlock(std::size_t slotBytes) ORLINTH_REQUIRES(lock_) {
        std::byte* const block = newPages(blockBytes);
        for (std::size_t at = blockBytes; at > 0; at -= slotBytes) {
            std::byte* const slot = block + at - slotBytes;
            std::memcpy(slot, &free_, sizeof free_);
            ASAN_POISON_MEMORY_REGION(slot, slotBytes);
            free_ = slot;
        }
    }

    Mutex lock_;
    std::byte* free_ ORLINTH_GUARDED_BY(lock_) = nullptr;
};

struct Place {
    Slots& slots;
    std::size_t slotBytes;
};

/// Where a secret of this size belongs, which is not larger than a slot can be.
Place placeFor(std::size_t size) noexcept {
    static constinit std::array<Slots, sizes> all; // never destroyed: secrets may outlive everything else
    std::size_t index = 0;
    std::size_t slotBytes = smallestSlot;
    while (slotBytes < size) {
        slotBytes *= 2;
        ++index;
    }
    return {.slots = all[index], .slotBytes = slotBytes};
}

} // namespace

std::byte* SecretMemory::take(std::size_t size) {
    if (size == 0) {
        return nullptr;
    }
    if (size > largestSlot) {
        return newPages(size);
    }
    const Place place = placeFor(size);
    return place.slots.take(place.slotBytes, size);
}

void SecretMemory::giveBack(std::byte* memory, std::size_t size) noexcept {
    if (memory == nullptr) {
        return;
    }
    wipe({memory, size});
    if (size > largestSlot) {
        static_cast<void>(::munmap(memory, size)); // which unlocks it
        return;
    }
    const Place place = placeFor(size);
    place.slots.giveBack(memory, place.slotBytes);
}

} // namespace orlinth
