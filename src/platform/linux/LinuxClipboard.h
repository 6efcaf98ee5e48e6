#pragma once

#include "platform/Clipboard.h"
#include "platform/linux/DesktopSession.h"
#include "platform/linux/WaylandSession.h"

#include <functional>

namespace orlinth::platform {

/// The clipboard of a Wayland or an X11 session, by way of programs that are chosen by what the desktop is able to do:
///
/// | the desktop | writing | reading |
/// |---|---|---|
/// | Wayland; programs without a window may use the clipboard | wl-copy | wl-paste |
/// | Wayland; they may not (GNOME), but XWayland is there | xclip | xclip, else wl-paste |
/// | the same without XWayland | ClipboardUnavailable | wl-paste |
/// | X11 | xclip | xclip |
///
/// Where they may not, wl-copy and wl-paste open a window for a moment: it takes the focus from where somebody types,
/// and waits for ever while the desktop shows no windows. So a text is never written that way; and it is read that way
/// only because somebody who has asked for it sits there.
///
/// On X11 an owner that refuses to list its types looks like no owner to xclip: there are no items then, and no text
/// is read. Texts that do not promise UTF-8 (STRING, TEXT, text/plain) and are none are taken for ISO 8859-1.
class LinuxClipboard final : public Clipboard {
public:
    /// `session` says at each call which desktop there is.
    explicit LinuxClipboard(std::function<DesktopSession()> session);

    [[nodiscard]] std::vector<std::vector<std::string>> itemTypes() override;
    [[nodiscard]] std::optional<Bytes> content(const std::string& type) override;
    [[nodiscard]] std::optional<std::string> text() override;
    void setText(const std::string& text) override;

private:
    std::function<DesktopSession()> session_;
    WaylandSession wayland_;
};

} // namespace orlinth::platform
