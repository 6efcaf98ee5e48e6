#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace orlinth::platform {

/// The system's registry of file types.
class MimeTypes {
public:
    virtual ~MimeTypes() = default;
    /// The preferred MIME type of files with this extension (without the dot, any letter case); nothing if unknown.
    [[nodiscard]] virtual std::optional<std::string> typeForExtension(std::string_view extension) const = 0;
};

} // namespace orlinth::platform
