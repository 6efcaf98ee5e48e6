#pragma once

#include "platform/Clipboard.h"

#include <functional>

namespace orlinth::platform {

/// The clipboard of a Wayland session (wl-clipboard) or an X11 one (xclip), chosen by the environment at each call.
///
/// On X11 an owner that refuses to list its types looks like no owner to xclip: there are no items then, and no text
/// is read. Texts that do not promise UTF-8 (STRING, TEXT, text/plain) and are none are taken for ISO 8859-1.
class LinuxClipboard final : public Clipboard {
public:
    /// `environment` answers like getenv().
    explicit LinuxClipboard(std::function<const char*(const char*)> environment);

    [[nodiscard]] std::vector<std::vector<std::string>> itemTypes() override;
    [[nodiscard]] std::optional<Bytes> content(const std::string& type) override;
    [[nodiscard]] std::optional<std::string> text() override;
    void setText(const std::string& text) override;

private:
    std::function<const char*(const char*)> environment_;
};

} // namespace orlinth::platform
