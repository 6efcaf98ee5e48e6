#pragma once

#include <cstdio>
#include <cstdlib>

namespace orlinth::fuzzing {

/// Ends the run as a finding unless `holds`.
inline void demand(bool holds, const char* property) {
    if (!holds) {
        std::fprintf(stderr, "broken property: %s\n", property);
        std::abort();
    }
}

} // namespace orlinth::fuzzing
