#include "platform/ProcessMemory.h"

#include <malloc.h>

namespace orlinth::platform {

void returnFreedMemory() noexcept {
    // Smaller than any frame of a transfer, whose buffer is used again and again: it costs one call a connection.
    constexpr int largeBytes = 512 << 10;
    // Both are the C library's defaults, more or less; naming them keeps it from raising them by what it sees.
    static_cast<void>(::mallopt(M_MMAP_THRESHOLD, largeBytes));
    static_cast<void>(::mallopt(M_TRIM_THRESHOLD, 2 * largeBytes));
}

} // namespace orlinth::platform
