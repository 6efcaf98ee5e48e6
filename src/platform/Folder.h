#pragma once

#include "platform/FileSystem.h"

#include <compare>
#include <string_view>
#include <system_error>

namespace orlinth::platform {

/// The name of something in a folder: not empty, without "/" and NUL, and neither "." nor "..". It cannot lead out of
/// the folder.
class FileName {
public:
    /// @throws SystemError (EINVAL) for any other text
    explicit FileName(std::string text);

    [[nodiscard]] const std::string& text() const noexcept { return text_; }
    /// The name with something behind it. @throws SystemError (EINVAL)
    [[nodiscard]] FileName operator+(std::string_view suffix) const;

    auto operator<=>(const FileName&) const = default;

private:
    std::string text_;
};

/// A folder held open, for what others may write in too: every call means this very folder, whatever its path leads to
/// by now, and no link in it is ever followed, by no call. A link under a name is a thing of its own there, of the kind
/// `other`.
///
/// Safe from several threads. Calls block on the disk. All throw SystemError unless they say otherwise.
class Folder {
public:
    virtual ~Folder() = default;

    /// As it was opened by; for people, and for what is remembered.
    [[nodiscard]] virtual const Path& path() const noexcept = 0;
    /// Of the folder itself.
    [[nodiscard]] virtual FileStatus status() const = 0;
    /// Nothing if nothing has this name.
    [[nodiscard]] virtual std::optional<FileStatus> status(const FileName& name) const = 0;
    /// As FileSystem::open() does with Links::refuse.
    [[nodiscard]] virtual std::unique_ptr<File> open(const FileName& name, OpenMode mode,
                                                     std::uint32_t permissions = 0666) = 0;
    /// Replaces what has the name `to` in one step; a link there is replaced itself.
    virtual void rename(const FileName& from, const FileName& to) = 0;
    /// Moves unless something has the name `to`; returns whether it moved. In one step.
    [[nodiscard]] virtual bool renameNoReplace(const FileName& from, const FileName& to) = 0;
    /// A file or a link; a folder is refused.
    virtual void remove(const FileName& name) = 0;
    /// Returns when the names in it would survive a power cut.
    virtual void flush() = 0;
    /// In no order.
    [[nodiscard]] virtual std::vector<std::string> list() const = 0;
    /// Bytes that a name in it may have. Best effort: where it cannot be told, what is usual on Linux.
    [[nodiscard]] virtual std::size_t longestName() const noexcept = 0;
    /// Bytes that this user may still write on its file system.
    [[nodiscard]] virtual std::int64_t freeBytes() const = 0;
    /// Why this user can make no file in it, as far as permissions and the file system tell; nothing is tried. No error
    /// if nothing stands in the way.
    [[nodiscard]] virtual std::error_code objectionToFiles() const noexcept = 0;
    /// What a file gets that is made with 0666: all of it that the umask leaves.
    [[nodiscard]] virtual std::uint32_t ordinaryPermissions() const = 0;
    /// The user id that new files get here.
    [[nodiscard]] virtual std::uint32_t user() const noexcept = 0;

    /// Whether nobody but this user, and the folder's owner, who can do everything in it anyway, can have made this
    /// file, and it has no second name, under which it may be a file that is meant to stay as it is.
    [[nodiscard]] bool isOwn(const FileStatus& file) const;

    /// Gives an open file, which has the name `from` here, the name `to` instead, unless something has that name;
    /// returns whether it moved. Whatever else gets the name `from` in between is not moved, or moved back.
    /// @throws SystemError, also if `from` is another file; then nothing has moved
    [[nodiscard]] bool moveNoReplace(const File& file, const FileName& from, const FileName& to);
};

} // namespace orlinth::platform
