#include "platform/linux/LinuxFileSystem.h"

#include "platform/SystemError.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/fs.h>
#include <optional>
#include <stdio.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace orlinth::platform {
namespace {

/// Makes a call again for as long as signals interrupt it.
template <typename Call>
auto retried(Call call) {
    for (;;) {
        const auto result = call();
        if (result != -1 || errno != EINTR) {
            return result;
        }
    }
}

/// The same; what fails for another reason is thrown.
template <typename Call>
auto checked(Call call) {
    const auto result = retried(std::move(call));
    if (result == -1) {
        throw SystemError::fromErrno();
    }
    return result;
}

class Descriptor {
public:
    explicit Descriptor(int number) noexcept : number_(number) {}
    Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Descriptor& operator=(Descriptor&&) = delete;
    ~Descriptor() {
        if (number_ != -1) {
            ::close(number_); // not made again: Linux has let go of the number even if it was interrupted
        }
    }
    [[nodiscard]] int get() const noexcept { return number_; }
    [[nodiscard]] int release() noexcept { return std::exchange(number_, -1); }

private:
    int number_;
};

FileStatus fromStat(const struct stat& found) {
    FileStatus status;
    status.kind = S_ISREG(found.st_mode)   ? FileKind::regular
                  : S_ISDIR(found.st_mode) ? FileKind::directory
                                           : FileKind::other;
    status.size = found.st_size;
    // unsigned, because a file may carry any date whatever: one beyond the year 2262 wraps around
    status.modifiedNanoseconds =
        static_cast<std::int64_t>(static_cast<std::uint64_t>(found.st_mtim.tv_sec) * 1'000'000'000U +
                                  static_cast<std::uint64_t>(found.st_mtim.tv_nsec));
    status.inode = found.st_ino;
    status.device = found.st_dev;
    status.permissions = found.st_mode & 07777U;
    return status;
}

class LinuxFile final : public File {
public:
    explicit LinuxFile(Descriptor descriptor) noexcept : descriptor_(std::move(descriptor)) {}

    std::size_t read(MutableBytes into) override {
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

    void write(ByteView data) override {
        while (!data.empty()) {
            const ssize_t count = checked([&] { return ::write(fd(), data.data(), data.size()); });
            data = data.subspan(static_cast<std::size_t>(count));
        }
    }

    void seek(std::int64_t offset) override {
        checked([&] { return ::lseek(fd(), offset, SEEK_SET); });
    }

    FileStatus status() const override {
        struct stat found{};
        checked([&] { return ::fstat(fd(), &found); });
        return fromStat(found);
    }

    void flush() override {
        checked([&] { return ::fdatasync(fd()); });
    }

    void startWriteback(std::int64_t offset, std::int64_t length) noexcept override {
        ::sync_file_range(fd(), offset, length, SYNC_FILE_RANGE_WRITE);
    }

    bool tryLock() override {
        if (retried([&] { return ::flock(fd(), LOCK_EX | LOCK_NB); }) == 0) {
            return true;
        }
        if (errno == EWOULDBLOCK) {
            return false;
        }
        throw SystemError::fromErrno();
    }

    void lock() override {
        checked([&] { return ::flock(fd(), LOCK_EX); });
    }

    [[nodiscard]] int fd() const noexcept { return descriptor_.get(); }

private:
    Descriptor descriptor_;
};

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

Descriptor openDescriptor(const Path& path, int flags, mode_t permissions = 0) {
    // Opening a named pipe would wait for its other end; nothing here is meant for pipes.
    const int opening = flags | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
    Descriptor descriptor(checked([&] { return ::open(path.c_str(), opening, permissions); }));
    checked([&] { return ::fcntl(descriptor.get(), F_SETFL, flags & O_ACCMODE); });
    return descriptor;
}

constexpr mode_t ownersBits = S_IRWXU;

/// Gives the owner what the umask has taken away of these permissions. A file that was there before is left alone: an
/// empty one alone can have been made just now, and one of somebody else's is not ours to change.
void keepForOwner(const Descriptor& file, mode_t permissions) {
    struct stat found{};
    checked([&] { return ::fstat(file.get(), &found); });
    const mode_t wanted = permissions & ownersBits;
    const bool isNew = found.st_size == 0 && found.st_uid == ::geteuid() && S_ISREG(found.st_mode);
    if (isNew && (found.st_mode & wanted) != wanted) {
        checked([&] { return ::fchmod(file.get(), (found.st_mode & 07777U) | wanted); });
    }
}

/// The same for a folder that was made just now.
void keepFolderForOwner(const Path& path, mode_t permissions) {
    struct stat found{};
    checked([&] { return ::stat(path.c_str(), &found); });
    const mode_t wanted = permissions & ownersBits;
    if ((found.st_mode & wanted) != wanted) {
        checked([&] { return ::chmod(path.c_str(), (found.st_mode & 07777U) | wanted); });
    }
}

bool isDirectory(const Path& path) noexcept {
    struct stat found{};
    return ::stat(path.c_str(), &found) == 0 && S_ISDIR(found.st_mode);
}

// ---- copying

/// A step of a copy: short enough that the kernel takes it in one call.
constexpr std::int64_t longestStep = 1 << 30;

/// What is copied from where both descriptors stand: this many bytes, or everything up to the end of the source.
using Length = std::optional<std::int64_t>;

/// Copies within the kernel as far as that goes; returns how far. Why it went no further is not looked at: for where it
/// cannot (between two file systems, from /proc) and for where it fails there is copyByHand(), which knows or tells.
std::int64_t copyInKernel(int from, int to, Length length) {
    std::int64_t done = 0;
    while (!length || done < *length) {
        const std::int64_t step = length ? std::min(longestStep, *length - done) : longestStep;
        const ssize_t count =
            retried([&] { return ::copy_file_range(from, nullptr, to, nullptr, static_cast<std::size_t>(step), 0); });
        if (count <= 0) {
            break;
        }
        done += count;
    }
    return done;
}

void copyByHand(LinuxFile& from, LinuxFile& to, Length length) {
    constexpr std::int64_t pieceBytes = 1 << 18;
    Bytes piece(static_cast<std::size_t>(pieceBytes));
    std::int64_t done = 0;
    while (!length || done < *length) {
        const std::int64_t wanted = length ? std::min(pieceBytes, *length - done) : pieceBytes;
        const std::size_t count = from.read(MutableBytes(piece).first(static_cast<std::size_t>(wanted)));
        to.write(ByteView(piece).first(count));
        done += static_cast<std::int64_t>(count);
        if (static_cast<std::int64_t>(count) < wanted) {
            return; // the end
        }
    }
}

void copyBytes(LinuxFile& from, LinuxFile& to, Length length) {
    const std::int64_t done = copyInKernel(from.fd(), to.fd(), length);
    if (!length || done < *length) {
        copyByHand(from, to, length ? Length(*length - done) : std::nullopt);
    }
}

/// Copies all that is in `from` into the empty `to`, and leaves out its holes where the file system tells of them.
void copyContent(LinuxFile& from, LinuxFile& to) {
    if (::ioctl(to.fd(), FICLONE, from.fd()) == 0) {
        return;
    }
    std::int64_t position = 0;
    const auto goTo = [&](std::int64_t offset) {
        from.seek(offset);
        to.seek(offset);
        position = offset;
    };
    for (;;) {
        const std::int64_t size = from.status().size; // looked at first: what is appended meanwhile lies behind it
        const off_t start = ::lseek(from.fd(), position, SEEK_DATA);
        if (start < 0 && errno == ENXIO && size > position) { // it ends with a hole
            checked([&] { return ::ftruncate(to.fd(), size); });
            position = size;
        }
        const off_t end = start < 0 ? start : ::lseek(from.fd(), start, SEEK_HOLE);
        if (end <= start) { // no data any more, or no telling where it is
            break;
        }
        goTo(start);
        copyBytes(from, to, end - start);
        position = end;
    }
    // Everything, where there is no telling; nothing more, or what has come meanwhile, otherwise. A size of 0 means
    // nothing in /proc.
    goTo(position);
    copyBytes(from, to, std::nullopt);
}

/// Opens a regular file, and nothing else: to open a pipe or a device is to use it.
LinuxFile openRegular(const Path& path) {
    struct stat found{};
    checked([&] { return ::stat(path.c_str(), &found); });
    const auto requireRegular = [](FileKind kind) {
        if (kind != FileKind::regular) {
            throw SystemError::fromErrno(kind == FileKind::directory ? EISDIR : EINVAL);
        }
    };
    requireRegular(fromStat(found).kind);
    LinuxFile file(openDescriptor(path, O_RDONLY));
    requireRegular(file.status().kind); // the name may lead elsewhere by now
    return file;
}

/// Whether these words of link() mean that this file system, or this kind of file, has no second names.
bool meansNoSecondNames(int code) noexcept {
    return code == EPERM || code == EOPNOTSUPP || code == ENOSYS || code == EMLINK || code == EINVAL;
}

} // namespace

std::optional<FileStatus> LinuxFileSystem::status(const Path& path) const {
    struct stat found{};
    if (retried([&] { return ::stat(path.c_str(), &found); }) == 0) {
        return fromStat(found);
    }
    if (errno == ENOENT || errno == ENOTDIR) {
        return std::nullopt;
    }
    throw SystemError::fromErrno();
}

bool LinuxFileSystem::exists(const Path& path) const noexcept {
    struct stat found{};
    return ::stat(path.c_str(), &found) == 0;
}

std::unique_ptr<File> LinuxFileSystem::open(const Path& path, OpenMode mode, Links links, std::uint32_t permissions) {
    const int flags = openFlags(mode) | (links == Links::refuse ? O_NOFOLLOW : 0);
    Descriptor descriptor = openDescriptor(path, flags, permissions);
    if ((flags & O_CREAT) != 0) {
        keepForOwner(descriptor, permissions);
    }
    return std::make_unique<LinuxFile>(std::move(descriptor));
}

void LinuxFileSystem::createDirectories(const Path& path, std::uint32_t permissions) {
    const Path parent = path.parent_path();
    const bool hasParent = !parent.empty() && parent != path;
    bool isMade = ::mkdir(path.c_str(), permissions) == 0;
    if (!isMade && errno == ENOENT && hasParent) {
        createDirectories(parent, permissions);
        isMade = ::mkdir(path.c_str(), permissions) == 0;
    }
    if (isMade) {
        keepFolderForOwner(path, permissions);
        flushDirectory(parent);
        return;
    }
    const int code = errno;
    if (!isDirectory(path)) { // it was there, or another process was quicker, or the path ends in a slash
        throw SystemError::fromErrno(code);
    }
}

void LinuxFileSystem::rename(const Path& from, const Path& to) {
    checked([&] { return ::rename(from.c_str(), to.c_str()); });
}

bool LinuxFileSystem::renameNoReplace(const Path& from, const Path& to) {
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) {
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

bool renameNoReplaceByLink(const Path& from, const Path& to) {
    if (::link(from.c_str(), to.c_str()) != 0) {
        if (errno == EEXIST) {
            return false;
        }
        if (meansNoSecondNames(errno)) {
            return renameNoReplaceByCheck(from, to);
        }
        throw SystemError::fromErrno();
    }
    if (::unlink(from.c_str()) != 0) {
        const int code = errno;
        ::unlink(to.c_str()); // it did not move: one name is to be left, the old one
        throw SystemError::fromErrno(code);
    }
    return true;
}

bool renameNoReplaceByCheck(const Path& from, const Path& to) {
    struct stat found{};
    if (::lstat(to.c_str(), &found) == 0) {
        return false;
    }
    if (errno != ENOENT) {
        throw SystemError::fromErrno();
    }
    checked([&] { return ::rename(from.c_str(), to.c_str()); });
    return true;
}

void LinuxFileSystem::copyToNew(const Path& from, const Path& to, std::uint32_t permissions) {
    LinuxFile source = openRegular(from);
    Descriptor made = openDescriptor(to, openFlags(OpenMode::createNew), permissions);
    try {
        keepForOwner(made, permissions);
        LinuxFile target(std::move(made));
        copyContent(source, target);
    } catch (const std::exception&) {
        ::unlink(to.c_str()); // should that fail too, the first failure is still the one to tell of
        throw;
    }
}

void LinuxFileSystem::remove(const Path& path) {
    checked([&] { return ::unlink(path.c_str()); });
}

void LinuxFileSystem::removeDirectory(const Path& path) {
    checked([&] { return ::rmdir(path.c_str()); });
}

Path LinuxFileSystem::resolveLinks(const Path& path) const {
    constexpr int mostLinks = 40; // the kernel's own limit
    Path current = path;
    std::array<char, PATH_MAX> target{};
    for (int links = 0; links <= mostLinks; ++links) {
        const ssize_t length = ::readlink(current.c_str(), target.data(), target.size());
        if (length < 0) {
            if (errno == EINVAL || errno == ENOENT) { // no link; nothing there yet
                return current;
            }
            throw SystemError::fromErrno();
        }
        // an absolute target replaces the whole path
        current = current.parent_path() / std::string_view(target.data(), static_cast<std::size_t>(length));
    }
    throw SystemError::fromErrno(ELOOP);
}

void LinuxFileSystem::setPermissions(const Path& path, std::uint32_t permissions) {
    checked([&] { return ::chmod(path.c_str(), permissions); });
}

void LinuxFileSystem::flushDirectory(const Path& path) {
    const Path folder = path.empty() ? Path(".") : path;
    if (::access(folder.c_str(), R_OK) != 0 && errno == EACCES) {
        return; // may be written but not opened: there is no way to flush it, and the names in it are there all the
                // same
    }
    const Descriptor directory = openDescriptor(folder, O_RDONLY | O_DIRECTORY);
    if (retried([&] { return ::fsync(directory.get()); }) != 0 && errno != EINVAL) {
        throw SystemError::fromErrno(); // EINVAL: a file system whose folders cannot be flushed one by one
    }
}

std::size_t LinuxFileSystem::longestName(const Path& folder) const noexcept {
    // Some say more than they take: FAT counts 255 characters as six bytes each.
    const std::size_t most = FileSystem::longestName(folder);
    const long bytes = ::pathconf(folder.c_str(), _PC_NAME_MAX);
    return bytes > 0 ? std::min(most, static_cast<std::size_t>(bytes)) : most;
}

std::vector<std::string> LinuxFileSystem::list(const Path& path) const {
    Descriptor descriptor = openDescriptor(path, O_RDONLY | O_DIRECTORY);
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(::fdopendir(descriptor.get()), ::closedir);
    if (!directory) {
        throw SystemError::fromErrno();
    }
    static_cast<void>(descriptor.release()); // the stream closes it
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

} // namespace orlinth::platform
