#pragma once

#include "base/ByteOffset.h"
#include "base/Bytes.h"
#include "base/Time.h"

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace orlinth::platform {

using Path = std::filesystem::path;

enum class FileKind { regular, directory, other };

/// What a look at a file tells.
struct FileStatus {
    FileKind kind = FileKind::other;
    std::int64_t size = 0; ///< bytes
    EpochNanoseconds modifiedAt{};
    std::uint64_t inode = 0;
    std::uint64_t device = 0;
    std::uint32_t permissions = 0; ///< the twelve mode bits
    std::uint64_t names = 1;       ///< how many a file has on its file system (hard links)
    std::uint32_t owner = 0;       ///< user id

    bool operator==(const FileStatus&) const = default;
};

/// Whether both are looks at the same file, whatever has become of its content meanwhile: device and inode. The number
/// of a file that has gone may be given to another one, unless somebody keeps it open; that of a device may change
/// whenever it is mounted.
[[nodiscard]] inline bool isSameFile(const FileStatus& one, const FileStatus& other) noexcept {
    return one.inode == other.inode && one.device == other.device;
}

/// Whether nothing tells that the file has been replaced or changed between the two looks: in addition size and time.
[[nodiscard]] inline bool isSameContent(const FileStatus& one, const FileStatus& other) noexcept {
    return isSameFile(one, other) && one.size == other.size && one.modifiedAt == other.modifiedAt;
}

/// An open file; destroying it closes it. Calls block; each is made on one thread at a time. All throw SystemError.
class File {
public:
    virtual ~File() = default;
    /// Reads at the position and moves it; fewer bytes than asked for, and 0, only at the end of the file.
    [[nodiscard]] virtual std::size_t read(MutableBytes into) = 0;
    /// Writes all bytes at the position and moves it.
    virtual void write(ByteView data) = 0;
    /// Moves the position.
    virtual void seek(ByteOffset offset) = 0;
    [[nodiscard]] virtual FileStatus status() const = 0;
    /// Returns when the data, and the size that goes with it, would survive a power cut (fdatasync).
    virtual void flush() = 0;
    /// The twelve mode bits, whatever the umask.
    virtual void setPermissions(std::uint32_t permissions) = 0;
    /// Asks the system to begin writing out `length` bytes from there on, so that a later flush() is short. Best
    /// effort.
    virtual void startWriteback(ByteOffset offset, std::int64_t length) noexcept = 0;
    /// Takes the exclusive advisory lock (flock), if nobody else holds it. It ends with the file object.
    [[nodiscard]] virtual bool tryLock() = 0;
    /// Waits for the same lock. Meant for holders that keep it for milliseconds.
    virtual void lock() = 0;
    /// Gives it back early.
    virtual void unlock() noexcept = 0;
};

enum class OpenMode {
    read,         ///< existing file or folder, for reading (a folder for its lock only)
    write,        ///< existing file, for writing, not truncated
    createNew,    ///< for writing; fails if anything has the name, a dangling link included
    openOrCreate, ///< for reading and writing, made empty if missing
};

/// Whether a link under the last path component is followed.
enum class Links { follow, refuse };

class Folder;

/// The files of this computer, or their in-memory twin. All throw SystemError unless they say otherwise.
class FileSystem {
public:
    virtual ~FileSystem() = default;
    /// Follows links. Nothing if there is no such file.
    [[nodiscard]] virtual std::optional<FileStatus> status(const Path& path) const = 0;
    /// Whether something has this name. Follows links, so a dangling link does not exist; what cannot be looked at
    /// does not exist either.
    [[nodiscard]] virtual bool exists(const Path& path) const noexcept = 0;
    /// `permissions` are those of a file that is made here, from its first byte. As everywhere below, the process's
    /// umask is taken off them, but never from what the owner gets: 0600 is 0600 under any umask.
    [[nodiscard]] virtual std::unique_ptr<File> open(const Path& path, OpenMode mode, Links links = Links::follow,
                                                     std::uint32_t permissions = 0666) = 0;
    /// Holds a folder that is there open (platform/Folder.h). Follows links on the way to it: which folder is meant is
    /// up to whoever chose the path.
    [[nodiscard]] virtual std::unique_ptr<Folder> openFolder(const Path& path) = 0;
    /// With all missing parents; an existing folder is fine. Only new folders get the permissions; their names survive
    /// a power cut.
    virtual void createDirectories(const Path& path, std::uint32_t permissions = 0777) = 0;
    /// Replaces `to` in one step.
    virtual void rename(const Path& from, const Path& to) = 0;
    /// Moves unless something has the name `to`; returns whether it moved. In one step.
    [[nodiscard]] virtual bool renameNoReplace(const Path& from, const Path& to) = 0;
    /// Copies what is in a regular file into a new one: the two share their blocks where the file system can do that.
    /// A link under `from` is followed; a folder, a pipe or a device there is refused without being read. `to` gets
    /// `permissions` and must not exist, as with OpenMode::createNew; when the copy fails, it does not exist again.
    /// Not flushed.
    virtual void copyToNew(const Path& from, const Path& to, std::uint32_t permissions) = 0;
    /// A file or a link; a folder is refused.
    virtual void remove(const Path& path) = 0;
    /// A folder with nothing in it.
    virtual void removeDirectory(const Path& path) = 0;
    /// Where a chain of links under `path` leads, also if nothing is there yet; `path` itself if it is no link.
    [[nodiscard]] virtual Path resolveLinks(const Path& path) const = 0;
    virtual void setPermissions(const Path& path, std::uint32_t permissions) = 0;
    /// Returns when the names in this folder would survive a power cut.
    virtual void flushDirectory(const Path& path) = 0;
    /// The names in a folder, in no order.
    [[nodiscard]] virtual std::vector<std::string> list(const Path& path) const = 0;
};

} // namespace orlinth::platform
