#pragma once

#include <cstdio>
#include <cstdlib>

namespace orlinth {

/// Ends the process where a caller broke a documented precondition: a programming error, not a failure to handle.
[[noreturn]] inline void preconditionFailed(const char* what) {
    std::fprintf(stderr, "orlinth: programming error: %s\n", what);
    std::abort();
}

} // namespace orlinth
