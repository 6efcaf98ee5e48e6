#pragma once

#include "platform/Clipboard.h"

#include <functional>
#include <map>
#include <set>

namespace orlinth::fakes {

/// A clipboard of items, each a map from types to contents.
class FakeClipboard : public platform::Clipboard {
public:
    ~FakeClipboard() override;
    std::vector<std::map<std::string, std::string>> items;
    bool hasSession = true;
    bool typesAreReadable = true;
    std::set<std::string> unreadable;      ///< types that are offered, but cannot be read
    std::vector<std::string> contentReads; ///< the types that were read, in order
    int textReads = 0;                     ///< how often the plain text was read
    int textWrites = 0;                    ///< how often a text was put there
    std::function<void()> afterTypes;      ///< what another program does right after somebody has looked at the types

    static constexpr const char* plainText = "text/plain;charset=utf-8";

    [[nodiscard]] std::vector<std::vector<std::string>> itemTypes() override {
        requireSession();
        if (!typesAreReadable) {
            throw platform::SystemError("the clipboard's owner does not answer");
        }
        std::vector<std::vector<std::string>> types;
        for (const auto& item : items) {
            types.emplace_back();
            for (const auto& [type, content] : item) {
                types.back().push_back(type);
            }
        }
        if (afterTypes) {
            std::exchange(afterTypes, nullptr)();
        }
        return types;
    }

    [[nodiscard]] std::optional<Bytes> content(const std::string& type) override {
        requireSession();
        contentReads.push_back(type);
        if (unreadable.contains(type)) {
            throw platform::SystemError("the clipboard's owner does not answer");
        }
        for (const auto& item : items) {
            if (const auto found = item.find(type); found != item.end()) {
                return toBytes(found->second);
            }
        }
        return std::nullopt;
    }

    [[nodiscard]] std::optional<std::string> text() override {
        requireSession();
        ++textReads;
        const std::optional<Bytes> found = content(plainText);
        return found ? std::optional(toText(*found)) : std::nullopt;
    }

    void setText(const std::string& text) override {
        requireSession();
        ++textWrites;
        items = {{{plainText, text}}};
    }

private:
    void requireSession() const {
        if (!hasSession) {
            throw platform::ClipboardUnavailable("there is no desktop session");
        }
    }
};

} // namespace orlinth::fakes
