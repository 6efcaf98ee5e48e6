#pragma once

#include "platform/Folder.h"

namespace orlinth::platform {

/// All bytes of a file. @throws SystemError
[[nodiscard]] Bytes readWholeFile(FileSystem& files, const Path& path);

/// When a change gets to where a power cut cannot undo it.
enum class Flush {
    now,     ///< before the call returns
    content, ///< the content before it gets its name; the name once the caller flushes the folder
    later,   ///< when the system gets round to it, or the caller flushes
};

/// Replaces a file whole: a temporary file of a fresh name in the same folder, made with its final permissions,
/// written, flushed, renamed; then the folder is flushed. A crash at any point leaves the old or the new content.
/// With Flush::content the folder is not flushed: once the call returns the file is there, whatever happens to that
/// flush, and a failure means that it is not. With Flush::later neither flush is made: that holds for a crash of the
/// process only, and a power cut may leave the old content, the new, or anything of the new one's length.
///
/// A link under `path` is replaced itself: nobody who may write in that folder can lead the content elsewhere. With
/// Links::follow it is kept, and its target replaced: for the user's own data folder, where only he puts links.
/// On failure the temporary file is removed.
/// @throws SystemError
void writeWholeFile(FileSystem& files, const Path& path, ByteView content, std::uint32_t permissions = 0644,
                    Flush flush = Flush::now, Links links = Links::refuse);

/// The same in a folder that is held open; a link under the name is replaced itself.
/// @throws SystemError
void writeWholeFile(Folder& folder, const FileName& name, ByteView content, std::uint32_t permissions = 0644,
                    Flush flush = Flush::now);

/// The name of a file that is replaced or removed in a moment: a fresh one each time, hidden, and no one else's.
[[nodiscard]] FileName temporaryName();

/// Removes what writers have left behind that were killed: files of this user's with such a name that nothing was
/// written to after `limit`. What cannot be removed stays. @throws SystemError if the folder cannot be listed
void removeTemporaryFiles(Folder& folder, EpochNanoseconds limit);

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

/// The same lock for somebody who takes it again and again: its file stays open between his turns. One thread at a
/// time.
class KeptFileLock {
public:
    /// As long as it lives, it has the lock. The lock outlives it.
    class Turn {
    public:
        explicit Turn(File& file) noexcept : file_(file) {}
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;
        ~Turn() { file_.unlock(); }

    private:
        File& file_;
    };

    /// Touches no file. `files` outlives it.
    KeptFileLock(FileSystem& files, const Path& path);
    /// Waits for its turn. The folder must exist. A lock's file that somebody has removed is made again.
    /// @throws SystemError
    [[nodiscard]] Turn take();

private:
    FileSystem& files_;
    Path path_;
    std::unique_ptr<File> file_;
    FileStatus opened_; ///< the file, when it was opened
};

} // namespace orlinth::platform
