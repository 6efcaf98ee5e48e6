#pragma once

#include "platform/FileSystem.h"

namespace orlinth::platform {

/// All bytes of a file. @throws SystemError
[[nodiscard]] Bytes readWholeFile(FileSystem& files, const Path& path);

/// Replaces a file whole: a temporary file of a fresh name in the same folder, made with its final permissions,
/// written, flushed, renamed; then the folder is flushed. A crash at any point leaves the old or the new content.
///
/// A link under `path` is kept and its target replaced. On failure the temporary file is removed.
/// @throws SystemError
void writeWholeFile(FileSystem& files, const Path& path, ByteView content, std::uint32_t permissions = 0644);

/// Keeps a read-change-write of `path` to one process, and one thread, at a time, for as long as the object lives.
///
/// The lock is taken on an empty file beside it (`path` + ".lock"), which stays: the file itself is replaced by every
/// write, so a lock on it would not meet the next writer.
class FileLock {
public:
    /// Waits for its turn. The folder must exist. @throws SystemError
    FileLock(FileSystem& files, const Path& path);

private:
    std::unique_ptr<File> file_;
};

} // namespace orlinth::platform
