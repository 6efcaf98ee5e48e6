#include "platform/linux/LinuxFile.h"

#include <algorithm>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <stdio.h>
#include <string_view>
#include <sys/file.h>
#include <unistd.h>

namespace orlinth::platform::detail {

FileStatus fromStat(const struct stat& found) {
    FileStatus status;
    status.kind = S_ISREG(found.st_mode)   ? FileKind::regular
                  : S_ISDIR(found.st_mode) ? FileKind::directory
                                           : FileKind::other;
    status.size = found.st_size;
    // unsigned, because a file may carry any date whatever: one beyond the year 2262 wraps around
    status.modifiedAt = fromEpochNanoseconds(
        static_cast<std::int64_t>(static_cast<std::uint64_t>(found.st_mtim.tv_sec) * 1'000'000'000U +
                                  static_cast<std::uint64_t>(found.st_mtim.tv_nsec)));
    status.inode = found.st_ino;
    status.device = found.st_dev;
    status.permissions = found.st_mode & 07777U;
    status.names = found.st_nlink;
    status.owner = found.st_uid;
    return status;
}

int openFlags(OpenMode mode) noexcept {
    switch (mode) {
    case OpenMode::read:
        return O_RDONLY;
    case OpenMode::write:
        return O_WRONLY;
    case OpenMode::createNew:
        return O_WRONLY | O_CREAT | O_EXCL;
    case OpenMode::openOrCreate:
        return O_RDWR | O_CREAT;
    }
    return O_RDONLY;
}

int openingFlags(int flags) noexcept {
    return flags | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
}

void letWait(const Descriptor& file, int flags) {
    checked([&] { return ::fcntl(file.get(), F_SETFL, flags & O_ACCMODE); });
}

void keepForOwner(const Descriptor& file, mode_t permissions) {
    struct stat found{};
    checked([&] { return ::fstat(file.get(), &found); });
    const mode_t wanted = permissions & S_IRWXU;
    const bool isNew = found.st_size == 0 && found.st_uid == ::geteuid() && S_ISREG(found.st_mode);
    if (isNew && (found.st_mode & wanted) != wanted) {
        checked([&] { return ::fchmod(file.get(), (found.st_mode & 07777U) | wanted); });
    }
}

// ---- moving without replacing

namespace {

/// Whether these words of link() mean that this file system, or this kind of file, has no second names.
bool meansNoSecondNames(int code) noexcept {
    return code == EPERM || code == EOPNOTSUPP || code == ENOSYS || code == EMLINK || code == EINVAL;
}

} // namespace

bool renameNoReplace(NameAt from, NameAt to) {
    if (::renameat2(from.folder, from.name, to.folder, to.name, RENAME_NOREPLACE) == 0) {
        return true;
    }
    switch (errno) {
    case EEXIST:
        return false;
    case EINVAL:
    case ENOSYS:
    case EOPNOTSUPP:
        return renameNoReplaceByLink(from, to);
    default:
        throw SystemError::fromErrno();
    }
}

bool renameNoReplaceByLink(NameAt from, NameAt to) {
    if (::linkat(from.folder, from.name, to.folder, to.name, 0) != 0) {
        if (errno == EEXIST) {
            return false;
        }
        if (meansNoSecondNames(errno)) {
            return renameNoReplaceByCheck(from, to);
        }
        throw SystemError::fromErrno();
    }
    if (::unlinkat(from.folder, from.name, 0) != 0) {
        const int code = errno;
        ::unlinkat(to.folder, to.name, 0); // it did not move: one name is to be left, the old one
        throw SystemError::fromErrno(code);
    }
    return true;
}

bool renameNoReplaceByCheck(NameAt from, NameAt to) {
    struct stat found{};
    if (::fstatat(to.folder, to.name, &found, AT_SYMLINK_NOFOLLOW) == 0) {
        return false;
    }
    if (errno != ENOENT) {
        throw SystemError::fromErrno();
    }
    checked([&] { return ::renameat(from.folder, from.name, to.folder, to.name); });
    return true;
}

// ---- folders

std::vector<std::string> namesIn(Descriptor folder) {
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(::fdopendir(folder.get()), ::closedir);
    if (!directory) {
        throw SystemError::fromErrno();
    }
    static_cast<void>(folder.release()); // the stream closes it
    std::vector<std::string> names;
    for (;;) {
        errno = 0;
        const dirent* const entry = ::readdir(directory.get());
        if (entry == nullptr) {
            break;
        }
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") {
            names.emplace_back(name);
        }
    }
    if (errno != 0) {
        throw SystemError::fromErrno();
    }
    return names;
}

std::size_t longestNameFrom(long bytes) noexcept {
    // Some say more than they take: FAT counts 255 characters as six bytes each.
    constexpr std::size_t most = 255;
    return bytes > 0 ? std::min(most, static_cast<std::size_t>(bytes)) : most;
}

void flushFolder(int folder) {
    if (retried([&] { return ::fsync(folder); }) != 0 && errno != EINVAL) {
        throw SystemError::fromErrno(); // EINVAL: a file system whose folders cannot be flushed one by one
    }
}

// ---- an open file

std::size_t LinuxFile::read(MutableBytes into) {
    std::size_t done = 0;
    while (done < into.size()) {
        const ssize_t count = checked([&] { return ::read(fd(), into.data() + done, into.size() - done); });
        if (count == 0) {
            break;
        }
        done += static_cast<std::size_t>(count);
    }
    return done;
}

void LinuxFile::write(ByteView data) {
    while (!data.empty()) {
        const ssize_t count = checked([&] { return ::write(fd(), data.data(), data.size()); });
        data = data.subspan(static_cast<std::size_t>(count));
    }
}

void LinuxFile::seek(ByteOffset offset) {
    checked([&] { return ::lseek(fd(), offset.bytesBefore(), SEEK_SET); });
}

FileStatus LinuxFile::status() const {
    struct stat found{};
    checked([&] { return ::fstat(fd(), &found); });
    return fromStat(found);
}

void LinuxFile::flush() {
    checked([&] { return ::fdatasync(fd()); });
}

void LinuxFile::setPermissions(std::uint32_t permissions) {
    checked([&] { return ::fchmod(fd(), permissions); });
}

void LinuxFile::startWriteback(ByteOffset offset, std::int64_t length) noexcept {
    ::sync_file_range(fd(), offset.bytesBefore(), length, SYNC_FILE_RANGE_WRITE);
}

bool LinuxFile::tryLock() {
    if (retried([&] { return ::flock(fd(), LOCK_EX | LOCK_NB); }) == 0) {
        return true;
    }
    if (errno == EWOULDBLOCK) {
        return false;
    }
    throw SystemError::fromErrno();
}

void LinuxFile::lock() {
    checked([&] { return ::flock(fd(), LOCK_EX); });
}

void LinuxFile::unlock() noexcept {
    ::flock(fd(), LOCK_UN); // of a file that is open it can only fail where it could not be locked either
}

} // namespace orlinth::platform::detail
