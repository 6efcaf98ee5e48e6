#include "platform/FileChangeCheck.h"

#include <cstdint>

namespace orlinth::platform {

namespace {

/// A file that was changed less than this ago may be changed again without a trace: its times are no finer than the
/// kernel's ticks.
constexpr std::chrono::seconds settlingTime = 1s;

bool looksTheSame(const std::optional<FileStatus>& one, const std::optional<FileStatus>& other) {
    if (!one || !other) {
        return one.has_value() == other.has_value();
    }
    return isSameContent(*one, *other);
}

} // namespace

FileChangeCheck::Answer FileChangeCheck::look(const FileSystem& files, const Clock& clock, const Path& file) {
    const std::optional<FileStatus> now = files.status(file);
    const bool isSame = looksTheSame(seen_, now);
    const bool wasSettled = isSettled_;
    seen_ = now;
    isSettled_ = !now || clock.epochMilliseconds() - inMilliseconds(now->modifiedAt) >= settlingTime;
    if (!isSame) {
        return Answer::different;
    }
    return wasSettled ? Answer::same : Answer::maybeSame;
}

} // namespace orlinth::platform
