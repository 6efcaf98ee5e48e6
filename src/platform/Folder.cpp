#include "platform/Folder.h"

#include "platform/SystemError.h"

#include <cerrno>
#include <utility>

namespace orlinth::platform {
namespace {

SystemError replaced(const FileName& name) {
    return SystemError("another program has replaced " + name.text());
}

} // namespace

FileName::FileName(std::string text) : text_(std::move(text)) {
    constexpr std::string_view neverInNames("/\0", 2);
    if (text_.empty() || text_ == "." || text_ == ".." || text_.find_first_of(neverInNames) != std::string::npos) {
        throw SystemError::fromErrno(EINVAL);
    }
}

FileName FileName::operator+(std::string_view suffix) const {
    return FileName(text_ + std::string(suffix));
}

bool Folder::isOwn(const FileStatus& file) const {
    return file.names <= 1 && (file.owner == user() || file.owner == status().owner);
}

bool Folder::moveNoReplace(const File& file, const FileName& from, const FileName& to) {
    const FileStatus moved = file.status();
    const std::optional<FileStatus> named = status(from);
    if (!named) {
        throw SystemError::fromErrno(ENOENT);
    }
    if (!isSameFile(*named, moved)) {
        throw replaced(from);
    }
    if (!renameNoReplace(from, to)) {
        return false;
    }
    // If nothing has the new name any more, somebody was quick to take the file away.
    const std::optional<FileStatus> found = status(to);
    if (found && !isSameFile(*found, moved)) {
        static_cast<void>(renameNoReplace(to, from)); // it was put there between the look and the move
        throw replaced(from);
    }
    return true;
}

} // namespace orlinth::platform
