#pragma once

#include "base/Bytes.h"
#include "platform/SystemError.h"

#include <optional>
#include <string>
#include <vector>

namespace orlinth::platform {

/// There is no clipboard within reach: no desktop session, or no program to reach it with. Says nothing about what is
/// on it, unlike other failures, behind which there may be anything.
class ClipboardUnavailable : public SystemError {
public:
    explicit ClipboardUnavailable(std::string text) : SystemError(std::move(text)) {}
};

/// The clipboard of the desktop session. Calls block, a second or two at most for each program that is tried. All throw
/// ClipboardUnavailable, and SystemError for other failures: no answer in time, a refusal.
///
/// Reading is for somebody who asks for it at this moment: some desktops give their clipboard only to a window in
/// focus, and one may flash up for that. Writing leaves the screen alone, and is fit for the background.
///
/// No text is ever in a process's arguments, and no shell is involved.
class Clipboard {
public:
    virtual ~Clipboard() = default;
    /// The types that each item of the clipboard is offered in, as its owner spells them. Reads no content.
    /// A desktop without items has one, with all types; an empty clipboard none.
    [[nodiscard]] virtual std::vector<std::vector<std::string>> itemTypes() = 0;
    /// The content in one of those types; nothing if it is not offered (any more). At most maxBytes.
    [[nodiscard]] virtual std::optional<Bytes> content(const std::string& type) = 0;
    /// The plain text in UTF-8; nothing if there is none.
    [[nodiscard]] virtual std::optional<std::string> text() = 0;
    /// Clears the clipboard and puts this text on it. The content outlives the program.
    virtual void setText(const std::string& text) = 0;

    /// More than a frame can carry is not worth reading.
    static constexpr std::size_t maxBytes = std::size_t{17} << 20;
};

} // namespace orlinth::platform
