#include "OrlinthHost/Service/OpenableFile.h"

#include "base/Text.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string>

namespace orlinth::host {

namespace {

/// Of these some program of a desktop runs what it is given, installs it, or lets it start others. In lower case.
constexpr std::array<std::string_view, 76> programs{
    "action", "air",     "apk",        "appimage",    "application", "bash",    "bat",  "bin", "class", "cmd",
    "com",    "command", "cpl",        "csh",         "deb",         "desktop", "dll",  "ear", "elf",   "exe",
    "fish",   "flatpak", "flatpakref", "flatpakrepo", "gadget",      "hta",     "inf",  "ins", "jar",   "jnlp",
    "js",     "jse",     "jsm",        "kdelnk",      "ksh",         "kts",     "lnk",  "lua", "mjs",   "msc",
    "msi",    "msp",     "osx",        "out",         "perl",        "pex",     "php",  "pif", "pl",    "pm",
    "ps1",    "psm1",    "py",         "pyc",         "pyw",         "rb",      "reg",  "rpm", "run",   "scpt",
    "scr",    "service", "sh",         "snap",        "so",          "tcl",     "udeb", "url", "vbe",   "vbs",
    "war",    "webloc",  "wsf",        "wsh",         "xpi",         "zsh"};
static_assert(std::ranges::is_sorted(programs));

constexpr std::uint32_t executeBits = 0111;
/// Room for a byte order mark and blank lines before a heading.
constexpr std::size_t beginningBytes = 512;

} // namespace

bool isNameOfProgram(std::string_view name) {
    // a name may be written so that its end is hidden from the eye, or from this
    const std::string end = lowerCased(pathExtension(trimmed(name)));
    return std::ranges::binary_search(programs, std::string_view(end));
}

bool isBeginningOfProgram(std::string_view beginning) {
    constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
    constexpr std::array<std::string_view, 5> marks{"#!",
                                                    "\x7F"
                                                    "ELF",
                                                    "MZ",
                                                    "!<arch>\n",         // of Debian's packages
                                                    "\xED\xAB\xEE\xDB"}; // of RPM's
    constexpr std::array<std::string_view, 3> headings{"[Desktop Entry]", "[KDE Desktop Entry]", "[Desktop Action"};
    if (std::ranges::any_of(marks, [beginning](std::string_view mark) { return beginning.starts_with(mark); })) {
        return true;
    }
    if (beginning.starts_with(byteOrderMark)) {
        beginning.remove_prefix(byteOrderMark.size());
    }
    return beginning.starts_with("#!") || std::ranges::any_of(headings, [beginning](std::string_view heading) {
               return beginning.find(heading) != std::string_view::npos;
           });
}

bool mayBeOpened(platform::FileSystem& files, const platform::Path& file) noexcept {
    try {
        const std::optional<platform::FileStatus> status = files.status(file);
        if (!status || status->kind != platform::FileKind::regular || (status->permissions & executeBits) != 0 ||
            isNameOfProgram(file.filename().string())) {
            return false;
        }
        const std::unique_ptr<platform::File> open = files.open(file, platform::OpenMode::read);
        Bytes beginning(beginningBytes);
        const std::size_t count = open->read(beginning);
        return !isBeginningOfProgram(toText(ByteView(beginning).first(count)));
    } catch (const std::exception&) {
        return false; // nobody knows what it is
    }
}

} // namespace orlinth::host
