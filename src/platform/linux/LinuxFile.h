#pragma once

#include "platform/FileSystem.h"
#include "platform/SystemError.h"
#include "platform/linux/Descriptor.h"

#include <sys/stat.h>
#include <utility>

/// What LinuxFileSystem and LinuxFolder have in common: the kernel's calls, and an open file.
namespace orlinth::platform::detail {

[[nodiscard]] FileStatus fromStat(const struct stat& found);

/// What open() and openat2() are told.
[[nodiscard]] int openFlags(OpenMode mode) noexcept;
/// In addition: opening a named pipe would wait for its other end, and nothing here is meant for pipes.
[[nodiscard]] int openingFlags(int flags) noexcept;
/// Reading and writing what was opened with openingFlags() waits again.
void letWait(const Descriptor& file, int flags);

/// Gives the owner what the umask has taken away of these permissions. A file that was there before is left alone: an
/// empty one alone can have been made just now, and one of somebody else's is not ours to change.
void keepForOwner(const Descriptor& file, mode_t permissions);

/// A name below an open folder, or a path (AT_FDCWD).
struct NameAt {
    int folder;
    const char* name;
};

/// Moves unless something has the name `to`; returns whether it moved. By one call, or on lesser file systems by the
/// stand-ins that follow.
[[nodiscard]] bool renameNoReplace(NameAt from, NameAt to);
/// By a second name; then the first one goes.
[[nodiscard]] bool renameNoReplaceByLink(NameAt from, NameAt to);
/// Looks, then moves.
[[nodiscard]] bool renameNoReplaceByCheck(NameAt from, NameAt to);

/// The names in a folder; takes the descriptor over.
[[nodiscard]] std::vector<std::string> namesIn(Descriptor folder);

/// Bytes that a name may have in a folder that pathconf() says this of.
[[nodiscard]] std::size_t longestNameFrom(long bytes) noexcept;

/// fsync() of a folder; nothing on a file system whose folders cannot be flushed one by one.
void flushFolder(int folder);

/// An open file.
class LinuxFile final : public File {
public:
    explicit LinuxFile(Descriptor descriptor) noexcept : descriptor_(std::move(descriptor)) {}

    std::size_t read(MutableBytes into) override;
    void write(ByteView data) override;
    void seek(ByteOffset offset) override;
    [[nodiscard]] FileStatus status() const override;
    void flush() override;
    void setPermissions(std::uint32_t permissions) override;
    void startWriteback(ByteOffset offset, std::int64_t length) noexcept override;
    [[nodiscard]] bool tryLock() override;
    void lock() override;
    void unlock() noexcept override;

    [[nodiscard]] int fd() const noexcept { return descriptor_.get(); }

private:
    Descriptor descriptor_;
};

} // namespace orlinth::platform::detail
