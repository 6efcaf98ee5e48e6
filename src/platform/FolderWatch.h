#pragma once

#include "platform/FileSystem.h"
#include "platform/Task.h"

#include <functional>
#include <memory>

namespace orlinth::platform {

/// A folder that is watched for as long as this lives. Destroying it, also in its own call, ends that: nothing is
/// called any more.
///
/// Threading: made and destroyed on its executor, or while nobody runs that. It is work that keeps the executor
/// running.
class FolderWatch {
public:
    virtual ~FolderWatch() = default;
};

/// Tells when something changes in a folder.
class FolderWatcher {
public:
    virtual ~FolderWatcher() = default;
    /// Calls `onChange` on `executor` after a name in the folder has come, gone or been replaced, or a file in it that
    /// was open for writing has been closed; several changes may make one call, and a call may come without a change.
    /// Looks at the folder's own names only, not below them.
    /// @throws SystemError if the folder cannot be watched, which says nothing against looking at it now and then
    [[nodiscard]] virtual std::unique_ptr<FolderWatch> watch(const Path& folder, Executor executor,
                                                             std::function<void()> onChange) = 0;
    /// The same for one file of a folder, which need not be there: after its name has come, gone or been replaced, or
    /// the file was open for writing and has been closed. What becomes of the folder's other files costs nothing,
    /// unless their names come and go.
    /// @throws SystemError if the folder, or the file that is there, cannot be watched
    [[nodiscard]] virtual std::unique_ptr<FolderWatch> watchFile(const Path& file, Executor executor,
                                                                 std::function<void()> onChange) = 0;
};

} // namespace orlinth::platform
