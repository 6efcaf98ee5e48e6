#pragma once

#include "base/Text.h"
#include "platform/MimeTypes.h"

#include <map>
#include <utility>

namespace orlinth::fakes {

/// A registry of file types that knows what it was told.
class FakeMimeTypes : public platform::MimeTypes {
public:
    /// Knows a few everyday types.
    FakeMimeTypes()
        : types_{{"jpg", "image/jpeg"}, {"pdf", "application/pdf"}, {"png", "image/png"}, {"txt", "text/plain"}} {}
    explicit FakeMimeTypes(std::map<std::string, std::string> types) : types_(std::move(types)) {}
    ~FakeMimeTypes() override;

    [[nodiscard]] std::optional<std::string> typeForExtension(std::string_view extension) const override {
        const auto found = types_.find(lowerCased(extension));
        return found == types_.end() ? std::nullopt : std::optional(found->second);
    }

private:
    std::map<std::string, std::string> types_; ///< by lower-case extension
};

} // namespace orlinth::fakes
