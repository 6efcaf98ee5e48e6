#pragma once

#include <cstdint>

namespace orlinth {

/// How far a file, or several, have come, bytes. `done` counts what an earlier attempt has left too; it exceeds `total`
/// if a file has grown meanwhile.
struct Progress {
    std::int64_t done = 0;
    std::int64_t total = 0;

    friend bool operator==(const Progress&, const Progress&) = default;
};

} // namespace orlinth
