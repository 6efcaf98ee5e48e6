#pragma once

#include "platform/FileSystem.h"
#include "platform/MimeTypes.h"

#include <string>

namespace orlinth {

/// What an offer says of a local file, and what the journal knows it by.
struct OutgoingFile {
    std::string name; ///< last path component; bytes that are not UTF-8 are replaced, because the offer is JSON
    std::int64_t size = 0;
    std::string mime;
    std::string fingerprint;        ///< "" if the file's front cannot be read
    platform::FileStatus seen = {}; ///< what the file was then, by which it is known again

    bool operator==(const OutgoingFile&) const = default;
};

/// The preferred MIME type of the path's extension; "application/octet-stream" if there is none or it is unknown.
[[nodiscard]] std::string mimeType(const platform::MimeTypes& mimeTypes, const platform::Path& path);

/// Looks at a file before it is sent. Links are followed.
/// @throws SendError::fileMissing; SendError::fileRead for a folder or a special file (reading a pipe or a device would
///         never end); platform::SystemError if the attributes cannot be read
[[nodiscard]] OutgoingFile examineFile(platform::FileSystem& files, const platform::MimeTypes& mimeTypes,
                                       const platform::Path& path);

} // namespace orlinth
