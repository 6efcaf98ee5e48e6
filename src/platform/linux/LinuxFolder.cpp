#include "platform/linux/LinuxFolder.h"

#include "platform/linux/LinuxFile.h"

#include <array>
#include <charconv>
#include <fcntl.h>
#include <limits>
#include <linux/openat2.h>
#include <stdio.h>
#include <string_view>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace orlinth::platform {
namespace {

using detail::checked;
using detail::Descriptor;
using detail::retried;

/// The folder, for reading where that is allowed: what was opened by O_PATH cannot be flushed.
Descriptor openHolding(const Path& path, bool& mayRead) {
    constexpr int flags = O_DIRECTORY | O_CLOEXEC;
    const int readable = retried([&] { return ::open(path.c_str(), flags | O_RDONLY); });
    mayRead = readable != -1;
    if (mayRead) {
        return Descriptor(readable);
    }
    if (errno != EACCES) {
        throw SystemError::fromErrno();
    }
    return Descriptor(checked([&] { return ::open(path.c_str(), flags | O_PATH); }));
}

/// A name in a folder, without following any link.
Descriptor openBeneath(int folder, const FileName& name, int flags, mode_t permissions) {
    open_how how{};
    how.flags = static_cast<std::uint64_t>(detail::openingFlags(flags) | O_NOFOLLOW);
    how.mode = (flags & O_CREAT) != 0 ? permissions : 0;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    const char* const text = name.text().c_str();
    const long number = retried([&] { return ::syscall(SYS_openat2, folder, text, &how, sizeof how); });
    if (number != -1) {
        return Descriptor(static_cast<int>(number));
    }
    if (errno != ENOSYS && errno != EPERM) { // EPERM: a container's filter that does not know the call
        throw SystemError::fromErrno();
    }
    return Descriptor(
        checked([&] { return ::openat(folder, text, detail::openingFlags(flags) | O_NOFOLLOW, permissions); }));
}

/// umask() itself cannot be asked without setting it, for all threads.
mode_t processUmask() {
    constexpr mode_t usual = 022;
    constexpr std::string_view key = "\nUmask:\t";
    std::array<char, 4096> text{}; // it is in the first lines
    const Descriptor file(::open("/proc/self/status", O_RDONLY | O_CLOEXEC));
    const ssize_t length =
        file.get() == -1 ? -1 : retried([&] { return ::read(file.get(), text.data(), text.size()); });
    const std::string_view status(text.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
    const std::size_t at = status.find(key);
    mode_t mask = 0;
    if (at == std::string_view::npos) {
        return usual;
    }
    const char* const start = status.data() + at + key.size();
    const auto [end, error] = std::from_chars(start, status.data() + status.size(), mask, 8);
    return error == std::errc() ? mask : usual;
}

class LinuxFolder final : public Folder {
public:
    LinuxFolder(const Path& path, std::uint32_t ordinaryPermissions)
        : path_(path), ordinaryPermissions_(ordinaryPermissions), descriptor_(openHolding(path, mayRead_)) {}

    const Path& path() const noexcept override { return path_; }

    FileStatus status() const override {
        struct stat found{};
        checked([&] { return ::fstat(fd(), &found); });
        return detail::fromStat(found);
    }

    std::optional<FileStatus> status(const FileName& name) const override {
        struct stat found{};
        if (retried([&] { return ::fstatat(fd(), name.text().c_str(), &found, AT_SYMLINK_NOFOLLOW); }) == 0) {
            return detail::fromStat(found);
        }
        if (errno == ENOENT) {
            return std::nullopt;
        }
        throw SystemError::fromErrno();
    }

    std::unique_ptr<File> open(const FileName& name, OpenMode mode, std::uint32_t permissions) override {
        const int flags = detail::openFlags(mode);
        Descriptor descriptor = openBeneath(fd(), name, flags, permissions);
        detail::letWait(descriptor, flags);
        if ((flags & O_CREAT) != 0) {
            detail::keepForOwner(descriptor, permissions);
        }
        return std::make_unique<detail::LinuxFile>(std::move(descriptor));
    }

    void rename(const FileName& from, const FileName& to) override {
        checked([&] { return ::renameat(fd(), from.text().c_str(), fd(), to.text().c_str()); });
    }

    bool renameNoReplace(const FileName& from, const FileName& to) override {
        return detail::renameNoReplace({fd(), from.text().c_str()}, {fd(), to.text().c_str()});
    }

    void remove(const FileName& name) override {
        checked([&] { return ::unlinkat(fd(), name.text().c_str(), 0); });
    }

    void flush() override {
        if (mayRead_) { // else there is no way to flush it, and the names in it are there all the same
            detail::flushFolder(fd());
        }
    }

    std::vector<std::string> list() const override {
        return detail::namesIn(
            Descriptor(checked([&] { return ::openat(fd(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC); })));
    }

    std::size_t longestName() const noexcept override {
        return detail::longestNameFrom(::fpathconf(fd(), _PC_NAME_MAX));
    }

    std::int64_t freeBytes() const override {
        struct statvfs found{};
        checked([&] { return ::fstatvfs(fd(), &found); });
        constexpr auto most = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
        const std::uint64_t unit = found.f_frsize;
        const std::uint64_t units = found.f_bavail;
        return static_cast<std::int64_t>(unit != 0 && units > most / unit ? most : units * unit);
    }

    std::error_code objectionToFiles() const noexcept override {
        const bool mayBeMade = ::faccessat(fd(), ".", W_OK | X_OK, AT_EACCESS) == 0;
        return mayBeMade ? std::error_code() : std::error_code(errno, std::generic_category());
    }

    std::uint32_t ordinaryPermissions() const override { return ordinaryPermissions_; }

    std::uint32_t user() const noexcept override { return ::geteuid(); }

private:
    [[nodiscard]] int fd() const noexcept { return descriptor_.get(); }

    Path path_;
    std::uint32_t ordinaryPermissions_;
    bool mayRead_ = false; // before the descriptor, which sets it
    Descriptor descriptor_;
};

} // namespace

std::unique_ptr<Folder> openLinuxFolder(const Path& path, std::uint32_t ordinaryPermissions) {
    return std::make_unique<LinuxFolder>(path, ordinaryPermissions);
}

std::uint32_t permissionsUnderUmask() {
    return 0666U & ~processUmask();
}

} // namespace orlinth::platform
