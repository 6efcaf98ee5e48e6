#include "OrlinthHost/FileChangeCheck.h"

#include <cstdint>

namespace orlinth::host {

namespace {

/// A file that was changed less than this ago may be changed again without a trace: its times are no finer than the
/// kernel's ticks.
constexpr std::chrono::seconds settlingTime = 1s;

bool looksTheSame(const std::optional<platform::FileStatus>& one, const std::optional<platform::FileStatus>& other) {
    if (!one || !other) {
        return one.has_value() == other.has_value();
    }
    return platform::isSameContent(*one, *other);
}

} // namespace

FileChangeCheck::Answer FileChangeCheck::look(const platform::FileSystem& files, const platform::Clock& clock,
                                              const platform::Path& file) {
    const std::optional<platform::FileStatus> now = files.status(file);
    const bool isSame = looksTheSame(seen_, now);
    const bool wasSettled = isSettled_;
    seen_ = now;
    isSettled_ = !now || clock.epochMilliseconds() - inMilliseconds(now->modifiedAt) >= settlingTime;
    if (!isSame) {
        return Answer::different;
    }
    return wasSettled ? Answer::same : Answer::maybeSame;
}

} // namespace orlinth::host
