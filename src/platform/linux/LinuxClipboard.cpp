#include "platform/linux/LinuxClipboard.h"

#include "base/Text.h"
#include "platform/linux/ChildProcess.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

namespace orlinth::platform {
namespace {

constexpr std::size_t maxListingBytes = std::size_t{64} << 10;

/// The programs that reach a desktop's clipboard, how they are asked, and what they say.
struct Tools {
    const char* package;
    const char* reader;
    std::vector<std::string> listTypes;
    std::vector<std::string> readType; ///< followed by the type
    const char* writer;
    std::vector<std::string> writeText; ///< from standard input
    const char* typeOfTypes;            ///< offered beside the real types; "" if there is none
    /// Beginnings of complaints that mean: there is nothing, or not in this type.
    std::vector<std::string_view> nothing;
    /// Beginnings of complaints that mean: there is no such desktop.
    std::vector<std::string_view> noDesktop;
};

Tools waylandTools() {
    return {.package = "wl-clipboard",
            .reader = "wl-paste",
            .listTypes = {"--list-types"},
            .readType = {"--no-newline", "--type"},
            .writer = "wl-copy",
            .writeText = {"--type", "text/plain;charset=utf-8"},
            .typeOfTypes = "",
            .nothing = {"No selection", "Nothing is copied", "No suitable type of content copied",
                        "Clipboard content is not available as requested type"},
            .noDesktop = {"Failed to connect to a Wayland server"}};
}

Tools x11Tools() {
    return {.package = "xclip",
            .reader = "xclip",
            .listTypes = {"-selection", "clipboard", "-o", "-t", "TARGETS"},
            .readType = {"-selection", "clipboard", "-o", "-t"},
            .writer = "xclip",
            .writeText = {"-selection", "clipboard", "-i"},
            .typeOfTypes = "TARGETS",
            .nothing = {"Error: target ", "Error: There is no owner for the "},
            .noDesktop = {"Error: Can't open display"}};
}

bool beginsWithOneOf(const std::string& text, const std::vector<std::string_view>& beginnings) {
    return std::ranges::any_of(beginnings, [&](std::string_view beginning) { return text.starts_with(beginning); });
}

/// Runs one of the programs on that desktop. @throws ClipboardUnavailable; SystemError if it does not answer
ChildResult run(ChildProgram program, const Tools& tools, const DesktopSession& session) {
    for (auto& variable : variablesOf(session)) {
        program.environment.push_back(std::move(variable));
    }
    try {
        ChildResult result = runChild(program);
        if (result.status != 0 && beginsWithOneOf(result.complaint, tools.noDesktop)) {
            throw ClipboardUnavailable("the desktop session cannot be reached: " + madeVisible(result.complaint));
        }
        return result;
    } catch (const ProgramUnavailable& error) {
        throw ClipboardUnavailable(error.description());
    }
}

[[noreturn]] void fail(const std::string& program, const ChildResult& result) {
    throw SystemError(program + ": " +
                      (result.complaint.empty() ? "ended with status " + std::to_string(result.status)
                                                : madeVisible(result.complaint)));
}

/// What the reader prints; nothing if it says that there is nothing.
std::optional<ChildResult> read(const Tools& tools, const DesktopSession& session, std::vector<std::string> arguments,
                                std::size_t maxBytes) {
    const ChildProgram program{.name = tools.reader,
                               .package = tools.package,
                               .arguments = std::move(arguments),
                               .input = {},
                               .maxOutputBytes = maxBytes};
    ChildResult result = run(program, tools, session);
    if (result.status == 0) {
        return result;
    }
    if (beginsWithOneOf(result.complaint, tools.nothing)) {
        return std::nullopt;
    }
    fail(program.name, result);
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = std::min(text.find('\n', start), text.size());
        if (end > start) {
            lines.push_back(text.substr(start, end - start));
        }
        start = end + 1;
    }
    return lines;
}

std::vector<std::string> listTypes(const Tools& tools, const DesktopSession& session) {
    const std::optional<ChildResult> listing = read(tools, session, tools.listTypes, maxListingBytes);
    if (!listing) {
        return {};
    }
    if (listing->isCut) {
        throw SystemError("the clipboard is offered in more types than can be listed");
    }
    std::vector<std::string> types = linesOf(toText(listing->output));
    std::erase(types, tools.typeOfTypes);
    return types;
}

std::optional<Bytes> readType(const Tools& tools, const DesktopSession& session, const std::string& type) {
    std::vector<std::string> arguments = tools.readType;
    arguments.push_back(type);
    std::optional<ChildResult> result = read(tools, session, std::move(arguments), Clipboard::maxBytes);
    return result ? std::optional(std::move(result->output)) : std::nullopt;
}

/// Types of plain text, the best first. The first two promise UTF-8.
constexpr std::array<std::string_view, 5> textTypes = {"text/plain;charset=utf-8", "utf8_string", "text/plain", "text",
                                                       "string"};

/// Which of the offered types stands for this text type, in the spelling of its owner.
std::optional<std::string> offered(const std::vector<std::string>& types, std::string_view textType) {
    const auto found = std::ranges::find_if(types, [&](const std::string& type) {
        std::string plain = lowerCased(type);
        std::erase(plain, ' '); // "text/plain; charset=UTF-8"
        return plain == textType;
    });
    return found != types.end() ? std::optional(*found) : std::nullopt;
}

std::string latin1ToUtf8(std::string_view text) {
    std::string converted;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte < 0x80) {
            converted.push_back(character);
        } else {
            converted.push_back(static_cast<char>(0xC0 | (byte >> 6)));
            converted.push_back(static_cast<char>(0x80 | (byte & 0x3F)));
        }
    }
    return converted;
}

/// Without the beginning of a character that a cut at the limit has left at the end.
void dropHalfCharacter(std::string& text) {
    for (std::size_t back = 1; back <= 3 && back <= text.size(); ++back) {
        const auto byte = static_cast<unsigned char>(text[text.size() - back]);
        if ((byte & 0xC0) == 0x80) {
            continue;
        }
        const std::size_t length = byte >= 0xF0 ? 4 : byte >= 0xE0 ? 3 : byte >= 0xC0 ? 2 : 1;
        if (length > back) {
            text.resize(text.size() - back);
        }
        return;
    }
}

/// Text of any type in UTF-8. "STRING" is ISO 8859-1 by the convention of X11 (ICCCM §2.6.2), but most programs put
/// UTF-8 there, and a text in another encoding is hardly ever valid UTF-8 by chance.
std::string decoded(std::string text, bool promisesUtf8) {
    if (text.size() == Clipboard::maxBytes) {
        dropHalfCharacter(text);
    }
    if (isUtf8(text)) {
        return text;
    }
    return promisesUtf8 ? toUtf8(text) : latin1ToUtf8(text);
}

std::optional<std::string> readText(const Tools& tools, const DesktopSession& session) {
    const std::vector<std::string> types = listTypes(tools, session);
    for (std::size_t i = 0; i < textTypes.size(); ++i) {
        const std::optional<std::string> type = offered(types, textTypes.at(i));
        if (!type) {
            continue;
        }
        if (const std::optional<Bytes> found = readType(tools, session, *type)) {
            return decoded(toText(*found), i < 2);
        }
    }
    return std::nullopt;
}

void writeText(const Tools& tools, const DesktopSession& session, const std::string& text) {
    ChildProgram program{
        .name = tools.writer, .package = tools.package, .arguments = tools.writeText, .input = asBytes(text)};
    // wl-copy keeps the text in a temporary file until the next one comes: better in memory, and in a folder of the
    // user's own. wl-clipboard before 2.2 takes /tmp all the same.
    if (!session.runtimeFolder.empty()) {
        program.environment.emplace_back("TMPDIR", session.runtimeFolder);
    }
    const ChildResult result = run(program, tools, session);
    if (result.status != 0) {
        fail(program.name, result);
    }
}

/// The first of them that finds its desktop. @throws what the first of them throws if none does
template <typename Use>
auto withFirst(const std::vector<Tools>& candidates, Use use) -> decltype(use(candidates.front())) {
    std::exception_ptr problem;
    for (const Tools& tools : candidates) {
        try {
            return use(tools);
        } catch (const ClipboardUnavailable&) {
            problem = problem ? problem : std::current_exception();
        }
    }
    std::rethrow_exception(problem);
}

/// Which programs reach the clipboard, the best first; at least one. @throws ClipboardUnavailable
std::vector<Tools> toolsOn(const DesktopSession& session, WaylandSession& wayland, bool mayTakeTheFocus) {
    if (!session.isThere()) {
        throw ClipboardUnavailable("there is no desktop session (neither WAYLAND_DISPLAY nor DISPLAY is set)");
    }
    const bool hasWayland = !session.waylandDisplay.empty();
    const WaylandSession::Clipboard clipboard =
        wayland.clipboard(WaylandSession::socketPath(session.waylandDisplay, session.runtimeFolder));
    if (clipboard == WaylandSession::Clipboard::open) {
        return {waylandTools()};
    }
    std::vector<Tools> candidates;
    if (!session.display.empty()) { // on Wayland this is XWayland, which shares the clipboard
        candidates.push_back(x11Tools());
    }
    if (hasWayland && mayTakeTheFocus) {
        candidates.push_back(waylandTools());
    }
    if (candidates.empty()) {
        throw ClipboardUnavailable(clipboard == WaylandSession::Clipboard::guarded
                                       ? "this desktop lets only the window in focus use the clipboard, and it has no "
                                         "XWayland (DISPLAY is not set)"
                                       : "the desktop session cannot be reached: no compositor answers at " +
                                             forDisplay(session.waylandDisplay));
    }
    return candidates;
}

} // namespace

LinuxClipboard::LinuxClipboard(std::function<DesktopSession()> session) : session_(std::move(session)) {}

std::vector<std::vector<std::string>> LinuxClipboard::itemTypes() {
    const DesktopSession session = session_();
    std::vector<std::string> types = withFirst(toolsOn(session, wayland_, true),
                                               [&session](const Tools& tools) { return listTypes(tools, session); });
    if (types.empty()) {
        return {};
    }
    return {std::move(types)};
}

std::optional<Bytes> LinuxClipboard::content(const std::string& type) {
    const DesktopSession session = session_();
    return withFirst(toolsOn(session, wayland_, true),
                     [&](const Tools& tools) { return readType(tools, session, type); });
}

std::optional<std::string> LinuxClipboard::text() {
    const DesktopSession session = session_();
    return withFirst(toolsOn(session, wayland_, true),
                     [&session](const Tools& tools) { return readText(tools, session); });
}

void LinuxClipboard::setText(const std::string& text) {
    const DesktopSession session = session_();
    withFirst(toolsOn(session, wayland_, false), [&](const Tools& tools) { writeText(tools, session, text); });
}

} // namespace orlinth::platform
