#pragma once

#include <string>
#include <string_view>

namespace orlinth::cli {

/// How a QR symbol is written where it will be looked at.
enum class QrStyle {
    ink,      ///< as it is, dark modules being ink: right on paper, and on a light terminal
    inverted, ///< light modules are ink: right on a dark terminal
    coloured, ///< black on white by colour codes, whatever the terminal's own colours are
};

/// The style for standard output: coloured on a terminal, inverted where NO_COLOR forbids that, ink elsewhere.
[[nodiscard]] QrStyle qrStyleForStandardOutput();

/// `text` is lines of "█", "▀", "▄" and blanks, dark modules being ink; so is the result, without the last line feed.
[[nodiscard]] std::string styledQr(std::string_view text, QrStyle style);

/// The columns, and the lines, that such a text takes.
[[nodiscard]] std::size_t qrColumns(std::string_view text);
[[nodiscard]] std::size_t qrRows(std::string_view text);

} // namespace orlinth::cli
