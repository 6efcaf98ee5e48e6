#pragma once

#include "platform/FolderWatch.h"

namespace orlinth::platform {

/// Folders watched by inotify, whose descriptors Asio waits for.
///
/// A folder that is moved away or removed is a change; from then on it is looked for every two seconds under the path
/// that was given, and that it is there again is a change too. So is a file looked at that cannot be watched any more,
/// as one that may not be read, or one too many for the system.
class LinuxFolderWatcher final : public FolderWatcher {
public:
    [[nodiscard]] std::unique_ptr<FolderWatch> watch(const Path& folder, Executor executor,
                                                     std::function<void()> onChange) override;
    [[nodiscard]] std::unique_ptr<FolderWatch> watchFile(const Path& file, Executor executor,
                                                         std::function<void()> onChange) override;
};

} // namespace orlinth::platform
