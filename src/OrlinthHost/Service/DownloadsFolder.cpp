#include "OrlinthHost/Service/DownloadsFolder.h"

#include "OrlinthCore/Share/ShareOutbox.h"
#include "OrlinthHost/HostError.h"
#include "platform/Folder.h"
#include "platform/SystemError.h"
#include "platform/WholeFile.h"

#include <algorithm>
#include <utility>

namespace orlinth::host {

namespace {

/// The folder, or the nearest one above it that is there: in that the missing ones would be made.
platform::Path nearestExisting(const platform::FileSystem& files, const platform::Path& folder) {
    platform::Path path = std::filesystem::absolute(folder);
    if (files.resolveLinks(path) != path && !files.status(path)) {
        throw platform::SystemError("it is a link to " + files.resolveLinks(path).string() + ", which does not exist");
    }
    while (!files.status(path) && path.has_relative_path()) {
        path = path.parent_path();
    }
    return path;
}

/// Makes a file there and removes it: permissions alone do not tell of every file system that cannot be written.
void tryToWrite(platform::FileSystem& files, const platform::Path& folder) {
    const std::optional<platform::FileStatus> status = files.status(folder);
    if (status && status->kind != platform::FileKind::directory) {
        throw platform::SystemError(std::make_error_code(std::errc::not_a_directory));
    }
    const std::unique_ptr<platform::Folder> opened = files.openFolder(folder);
    const platform::FileName probe = platform::temporaryName();
    static_cast<void>(opened->open(probe, platform::OpenMode::createNew, 0600));
    opened->remove(probe);
}

// ---- folders that are none for strangers' files

/// As a text: absolute, without dots and without a slash at its end.
platform::Path plain(const platform::Path& path) {
    const platform::Path normal = std::filesystem::absolute(path).lexically_normal();
    return normal.has_filename() || !normal.has_relative_path() ? normal : normal.parent_path();
}

bool isBelowByText(const platform::Path& inner, const platform::Path& outer) {
    const platform::Path below = plain(inner);
    const platform::Path above = plain(outer);
    return std::mismatch(above.begin(), above.end(), below.begin(), below.end()).first == above.end();
}

std::optional<platform::FileStatus> lookAt(const platform::FileSystem& files, const platform::Path& path) {
    try {
        return files.status(path);
    } catch (const platform::SystemError&) {
        return std::nullopt; // what may not be looked at can still be compared by its path
    }
}

/// Whether one is the other or lies in it, by whatever path; if they do not exist, by their paths alone.
bool isWithin(const platform::FileSystem& files, const platform::Path& inner, const platform::Path& outer) {
    if (isBelowByText(inner, outer)) {
        return true;
    }
    const std::optional<platform::FileStatus> wanted = lookAt(files, outer);
    platform::Path path = plain(inner);
    while (!lookAt(files, path) && path.has_relative_path()) {
        path = path.parent_path();
    }
    std::optional<platform::FileStatus> here = lookAt(files, path);
    while (wanted && here) {
        if (platform::isSameFile(*here, *wanted)) {
            return true;
        }
        path /= ".."; // of the folder itself, not of its path
        const std::optional<platform::FileStatus> above = lookAt(files, path);
        if (above && platform::isSameFile(*above, *here)) {
            return false; // the root
        }
        here = above;
    }
    return false;
}

bool isSameFolder(const platform::FileSystem& files, const platform::Path& one, const platform::Path& other) {
    return isWithin(files, one, other) && isWithin(files, other, one);
}

} // namespace

DownloadsFolder chooseDownloadsFolder(const Home& home, const std::string& chosen) {
    const platform::UserDirectories& user = home.system.directories;
    if (!chosen.empty()) {
        return {.path = chosen};
    }
    if (!user.home.empty() && isSameFolder(home.system.files, user.downloads, user.home)) {
        return {.path = user.home / "Downloads", .isInPlaceOfHome = true};
    }
    return {.path = user.downloads};
}

std::optional<std::string> objectionToDownloads(const Home& home, const platform::Path& folder) {
    const platform::FileSystem& files = home.system.files;
    const platform::UserDirectories& user = home.system.directories;
    const std::array<std::pair<platform::Path, std::string>, 3> users{
        std::pair{user.home, "your home folder"}, std::pair{user.config, "your folder for settings"},
        std::pair{user.data, "your folder for programs' data"}};
    for (const auto& [path, what] : users) {
        if (!path.empty() && isWithin(files, path, folder)) {
            return isWithin(files, folder, path) ? "it is " + what : what + " is in it";
        }
    }
    for (const platform::Path& own :
         {home.dataDirectory(), user.data / ShareOutbox::appGroupID, user.config / "orlinth"}) {
        if (isWithin(files, folder, own)) {
            return "Orlinth keeps its own files in " + own.string();
        }
    }
    return std::nullopt;
}

void requireWritableFolder(const Home& home, const platform::Path& folder) {
    platform::FileSystem& files = home.system.files;
    try {
        tryToWrite(files, nearestExisting(files, folder));
    } catch (const platform::SystemError& error) {
        if (error.code() == std::errc::no_space_on_device) {
            return; // that passes, and small files may still fit
        }
        throw HostError("cannot write to the folder for received files, " + folder.string() + ": " +
                            error.description(),
                        "Make it writable for this account, or choose another folder with `--dir`.");
    }
}

} // namespace orlinth::host
