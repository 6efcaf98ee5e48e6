#include "platform/linux/LinuxFileSystem.h"

#include "platform/SystemError.h"
#include "platform/linux/LinuxFile.h"
#include "platform/linux/LinuxFolder.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <limits.h>
#include <linux/fs.h>
#include <optional>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace orlinth::platform {
namespace {

using detail::checked;
using detail::Descriptor;
using detail::fromStat;
using detail::LinuxFile;
using detail::openFlags;
using detail::retried;

Descriptor openDescriptor(const Path& path, int flags, mode_t permissions = 0) {
    Descriptor descriptor(checked([&] { return ::open(path.c_str(), detail::openingFlags(flags), permissions); }));
    detail::letWait(descriptor, flags);
    return descriptor;
}

/// As keepForOwner() does, for a folder that was made just now.
void keepFolderForOwner(const Path& path, mode_t permissions) {
    struct stat found{};
    checked([&] { return ::stat(path.c_str(), &found); });
    const mode_t wanted = permissions & S_IRWXU;
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
    ByteOffset position;
    const auto goTo = [&](ByteOffset offset) {
        from.seek(offset);
        to.seek(offset);
        position = offset;
    };
    for (;;) {
        const std::int64_t size = from.status().size; // looked at first: what is appended meanwhile lies behind it
        const off_t start = ::lseek(from.fd(), position.bytesBefore(), SEEK_DATA);
        if (start < 0 && errno == ENXIO && size > position.bytesBefore()) { // it ends with a hole
            checked([&] { return ::ftruncate(to.fd(), size); });
            position = ByteOffset(size);
        }
        const off_t end = start < 0 ? start : ::lseek(from.fd(), start, SEEK_HOLE);
        if (end <= start) { // no data any more, or no telling where it is
            break;
        }
        goTo(ByteOffset(start));
        copyBytes(from, to, end - start);
        position = ByteOffset(end);
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
        detail::keepForOwner(descriptor, permissions);
    }
    return std::make_unique<LinuxFile>(std::move(descriptor));
}

std::unique_ptr<Folder> LinuxFileSystem::openFolder(const Path& path) {
    std::call_once(umaskIsKnown_, [this] { ordinaryPermissions_ = permissionsUnderUmask(); });
    return openLinuxFolder(path, ordinaryPermissions_);
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
    return detail::renameNoReplace({AT_FDCWD, from.c_str()}, {AT_FDCWD, to.c_str()});
}

bool renameNoReplaceByLink(const Path& from, const Path& to) {
    return detail::renameNoReplaceByLink({AT_FDCWD, from.c_str()}, {AT_FDCWD, to.c_str()});
}

bool renameNoReplaceByCheck(const Path& from, const Path& to) {
    return detail::renameNoReplaceByCheck({AT_FDCWD, from.c_str()}, {AT_FDCWD, to.c_str()});
}

void LinuxFileSystem::copyToNew(const Path& from, const Path& to, std::uint32_t permissions) {
    LinuxFile source = openRegular(from);
    Descriptor made = openDescriptor(to, openFlags(OpenMode::createNew), permissions);
    try {
        detail::keepForOwner(made, permissions);
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
    detail::flushFolder(directory.get());
}

std::vector<std::string> LinuxFileSystem::list(const Path& path) const {
    return detail::namesIn(openDescriptor(path, O_RDONLY | O_DIRECTORY));
}

} // namespace orlinth::platform
