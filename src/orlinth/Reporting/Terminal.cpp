#include "orlinth/Reporting/Terminal.h"

#include "OrlinthHost/HumanText.h"
#include "orlinth/Reporting/Output.h"

#include <cstdlib>
#include <sys/ioctl.h>
#include <unistd.h>

namespace orlinth::cli {

bool isTerminal(int descriptor) {
    return isatty(descriptor) == 1;
}

bool canRedraw(int descriptor) {
    const char* terminal = std::getenv("TERM");
    const std::string_view name = terminal == nullptr ? "" : terminal;
    return isTerminal(descriptor) && !name.empty() && name != "dumb";
}

bool wantsColour() {
    const char* refused = std::getenv("NO_COLOR");
    return refused == nullptr || *refused == '\0';
}

namespace {

winsize sizeOf(int descriptor) {
    winsize size{};
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-vararg): the system's own interface
    return ioctl(descriptor, TIOCGWINSZ, &size) == 0 ? size : winsize{};
}

} // namespace

std::size_t columnsOfTerminal(int descriptor) {
    const std::size_t columns = sizeOf(descriptor).ws_col;
    return columns > 0 ? columns : 80;
}

std::size_t rowsOfTerminal(int descriptor) {
    const std::size_t rows = sizeOf(descriptor).ws_row;
    return rows > 0 ? rows : 24;
}

StatusLine::StatusLine(bool enabled) : enabled_(enabled && canRedraw(STDERR_FILENO)) {}

StatusLine::~StatusLine() {
    clear();
}

void StatusLine::show(std::string_view text) {
    if (enabled_) {
        shown_ = true;
        writeToStandardError("\r" + host::fitted(text, columnsOfTerminal(STDERR_FILENO) - 1) + "\033[K");
    }
}

void StatusLine::clear() noexcept {
    if (std::exchange(shown_, false)) {
        writeToStandardError("\r\033[K");
    }
}

} // namespace orlinth::cli
