#include "orlinth/FolderCheck.h"

#include "base/Hex.h"
#include "platform/Crypto.h"
#include "platform/SystemError.h"

#include <array>
#include <optional>

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
    std::array<std::byte, 8> random{};
    platform::randomBytes(random);
    const platform::Path probe = folder / ("." + hexEncode(random) + ".tmp");
    static_cast<void>(files.open(probe, platform::OpenMode::createNew, platform::Links::refuse, 0600));
    files.remove(probe);
}

} // namespace

void requireWritableFolder(const Host& host, const platform::Path& folder) {
    platform::FileSystem& files = host.system.files;
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
