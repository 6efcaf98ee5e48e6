#pragma once

#include "base/Error.h"
#include "platform/FileSystem.h"

#include <string_view>

namespace orlinth::bus {

/// A text that is no URI of a file on this computer. The text is for people.
class FileUriError : public Error {
public:
    explicit FileUriError(std::string text) : Error(std::move(text)) {}
};

/// The absolute path that a `file` URI (RFC 8089) names: "file:///home/ada/a%20b.txt", also with "localhost".
/// @throws FileUriError
[[nodiscard]] platform::Path pathOfFileUri(std::string_view uri);

} // namespace orlinth::bus
