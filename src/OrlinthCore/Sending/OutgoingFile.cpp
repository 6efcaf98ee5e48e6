#include "OrlinthCore/Sending/OutgoingFile.h"

#include "OrlinthCore/Sending/InFlightJournal.h"
#include "OrlinthCore/Sending/SendError.h"
#include "base/Text.h"
#include "platform/SystemError.h"

#include <cerrno>

namespace orlinth {

std::string mimeType(const platform::MimeTypes& mimeTypes, const platform::Path& path) {
    const std::string extension = pathExtension(lastPathComponent(path.native()));
    std::optional<std::string> type;
    if (!extension.empty()) {
        type = mimeTypes.typeForExtension(extension);
    }
    return type.value_or("application/octet-stream");
}

namespace {

/// Nothing if there is no such file, which includes a way to it that cannot be gone.
std::optional<platform::FileStatus> statusOf(platform::FileSystem& files, const platform::Path& path) {
    try {
        return files.status(path);
    } catch (const platform::SystemError&) {
        if (!files.exists(path)) {
            return std::nullopt;
        }
        throw;
    }
}

} // namespace

OutgoingFile examineFile(platform::FileSystem& files, const platform::MimeTypes& mimeTypes,
                         const platform::Path& path) {
    const std::optional<platform::FileStatus> status = statusOf(files, path);
    if (!status) {
        throw SendError::fileMissing(path.native());
    }
    if (status->kind == platform::FileKind::directory) {
        throw SendError::fileRead(platform::SystemError::fromErrno(EISDIR).description());
    }
    if (status->kind != platform::FileKind::regular) {
        throw SendError::fileRead("not a regular file");
    }
    OutgoingFile file{.name = toUtf8(lastPathComponent(path.native())),
                      .size = status->size,
                      .mime = mimeType(mimeTypes, path),
                      .fingerprint = "",
                      .seen = *status};
    try {
        file.fingerprint = FileFingerprint::compute(files, path);
    } catch (const platform::SystemError&) {
        // The journal works without it; if the file cannot be read at all, the send will say so.
    }
    return file;
}

} // namespace orlinth
