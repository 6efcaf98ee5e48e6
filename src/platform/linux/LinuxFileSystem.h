#pragma once

#include "platform/FileSystem.h"

#include <mutex>

namespace orlinth::platform {

/// Files through the kernel's own calls. No descriptor is inherited by a program that this one starts, and a call that
/// a signal interrupts is made again. The umask is taken as it is when the first folder is opened. Safe from several
/// threads.
class LinuxFileSystem final : public FileSystem {
public:
    [[nodiscard]] std::optional<FileStatus> status(const Path& path) const override;
    [[nodiscard]] bool exists(const Path& path) const noexcept override;
    [[nodiscard]] std::unique_ptr<File> open(const Path& path, OpenMode mode, Links links = Links::follow,
                                             std::uint32_t permissions = 0666) override;
    [[nodiscard]] std::unique_ptr<Folder> openFolder(const Path& path) override;
    void createDirectories(const Path& path, std::uint32_t permissions = 0777) override;
    void rename(const Path& from, const Path& to) override;
    [[nodiscard]] bool renameNoReplace(const Path& from, const Path& to) override;
    void copyToNew(const Path& from, const Path& to, std::uint32_t permissions) override;
    void remove(const Path& path) override;
    void removeDirectory(const Path& path) override;
    [[nodiscard]] Path resolveLinks(const Path& path) const override;
    void setPermissions(const Path& path, std::uint32_t permissions) override;
    void flushDirectory(const Path& path) override;
    [[nodiscard]] std::vector<std::string> list(const Path& path) const override;

private:
    std::once_flag umaskIsKnown_;
    std::uint32_t ordinaryPermissions_ = 0; ///< once the flag is set
};

/// FileSystem::renameNoReplace for file systems that cannot do it in one call: a second name, then the first one goes.
/// Still never replaces anything; a crash in between leaves both names.
[[nodiscard]] bool renameNoReplaceByLink(const Path& from, const Path& to);

/// The same where there are no second names either (FAT): looks, then moves. A file that appears in between is lost.
[[nodiscard]] bool renameNoReplaceByCheck(const Path& from, const Path& to);

} // namespace orlinth::platform
