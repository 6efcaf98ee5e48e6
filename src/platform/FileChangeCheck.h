#pragma once

#include "platform/Clock.h"
#include "platform/FileSystem.h"

#include <optional>

namespace orlinth::platform {

/// Tells, from a file's times, size and place, whether it has changed since the look before. To be asked before the
/// file is read: what changes meanwhile is then seen by the next look.
///
/// Threading: none of its own.
class FileChangeCheck {
public:
    enum class Answer {
        same,      ///< has certainly not changed
        maybeSame, ///< looks the same, but may have changed without a trace; or the first look
        different, ///< has changed, come or gone
    };

    /// @throws SystemError, and the next answer is as if this look had not been
    [[nodiscard]] Answer look(const FileSystem& files, const Clock& clock, const Path& file);
    /// The next answer is not `same`.
    void doubt() noexcept { isSettled_ = false; }

private:
    std::optional<FileStatus> seen_;
    bool isSettled_ = false; ///< the file was old enough when it was seen to show every later change
};

} // namespace orlinth::platform
