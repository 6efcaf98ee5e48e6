#include "orlinth/Reporting/TerminalQr.h"

#include "orlinth/Reporting/Terminal.h"

#include <algorithm>
#include <array>
#include <unistd.h>

namespace orlinth::cli {

namespace {

// Entries of the 256-colour cube: the first sixteen are themed, so that "white" is often grey or something else.
constexpr std::string_view blackOnWhite = "\033[38;5;16;48;5;231m";
constexpr std::string_view endColour = "\033[0m";

struct Swap {
    std::string_view from;
    std::string_view to;
};
constexpr std::array<Swap, 4> inversions{{{"█", " "}, {" ", "█"}, {"▀", "▄"}, {"▄", "▀"}}};

std::string inverted(std::string_view line) {
    std::string result;
    while (!line.empty()) {
        std::size_t taken = 1;
        std::string_view put = line.substr(0, 1);
        for (const Swap& swap : inversions) {
            if (line.starts_with(swap.from)) {
                taken = swap.from.size();
                put = swap.to;
                break;
            }
        }
        result += put;
        line.remove_prefix(taken);
    }
    return result;
}

} // namespace

QrStyle qrStyleForStandardOutput() {
    if (!isTerminal(STDOUT_FILENO)) {
        return QrStyle::ink;
    }
    return wantsColour() ? QrStyle::coloured : QrStyle::inverted;
}

std::string styledQr(std::string_view text, QrStyle style) {
    std::string result;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        result += result.empty() ? "" : "\n";
        switch (style) {
        case QrStyle::ink:
            result += line;
            break;
        case QrStyle::inverted:
            result += inverted(line);
            break;
        case QrStyle::coloured:
            result += blackOnWhite;
            result += line;
            result += endColour;
            break;
        }
    }
    return result;
}

std::size_t qrColumns(std::string_view text) {
    const std::string_view line = text.substr(0, text.find('\n'));
    std::size_t columns = 0;
    for (const char c : line) {
        const bool continues = (static_cast<unsigned char>(c) & 0xC0U) == 0x80U;
        columns += continues ? 0 : 1;
    }
    return columns;
}

std::size_t qrRows(std::string_view text) {
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

} // namespace orlinth::cli
