#pragma once

#include "base/Time.h"

#include <optional>
#include <string>
#include <string_view>

namespace orlinth {

/// Whether the text is well-formed UTF-8 (no overlong forms, no surrogates).
[[nodiscard]] bool isUtf8(std::string_view text);

/// The text with every byte that does not belong to a well-formed character replaced by U+FFFD.
[[nodiscard]] std::string toUtf8(std::string_view text);

/// Adds a character, which must be a Unicode scalar value.
void appendUtf8(std::string& text, char32_t character);

/// Lower case by Unicode's simple mapping; bytes that are not UTF-8 stay as they are.
[[nodiscard]] std::string lowerCased(std::string_view text);

/// For finding out what a file system that ignores letter case could take for the same name: Unicode's full case
/// folding, decomposed, and without characters that show nothing. A text that is not UTF-8: as lowerCased().
[[nodiscard]] std::string caseFolded(std::string_view text);

/// Without Unicode white space and line ends (categories Z*, and U+0009 to U+000D, U+0085) at both ends.
[[nodiscard]] std::string trimmed(std::string_view text);

/// Whether a UTF-8 text has a control character: C0, DEL or C1.
[[nodiscard]] bool hasControlCharacter(std::string_view text) noexcept;

/// At most `count` characters as a reader counts them (extended grapheme clusters, UAX #29).
[[nodiscard]] std::string firstCharacters(std::string_view text, std::size_t count);

/// As many such characters from the start as fit into `bytes`. Where not even the first does, the front of it, cut
/// between code points.
[[nodiscard]] std::string firstCharactersWithin(std::string_view text, std::size_t bytes);

/// For a terminal: control, bidirectional-override and other invisible formatting characters as "\u{202E}", bytes
/// that are not UTF-8 as "\x{FF}". A name from the other side can then neither move the cursor nor disguise itself.
[[nodiscard]] std::string madeVisible(std::string_view text);

/// How many columns of a terminal the text takes at most: wide scripts count two a character, so the figure may be
/// too large for others but is never too small.
[[nodiscard]] std::size_t columnsOf(std::string_view utf8);

/// As many characters from the start as fit into so many columns.
[[nodiscard]] std::string_view firstColumns(std::string_view utf8, std::size_t columns);

/// The most columns of anything that somebody else has chosen (a name, a file name, an address, the text of an error)
/// in what a person or a log is shown, and of a whole line of that.
inline constexpr std::size_t maxShownColumns = 200;
inline constexpr std::size_t maxLineColumns = 1000;

/// The text made visible and, if it takes more than `columns`, with "…" in place of its middle: the end of a file name
/// says what kind of file it is, and the end of an error why. Everything that others have chosen passes through this on
/// its way to a person or a log. The time that it takes depends on `columns`, not on the text's length.
[[nodiscard]] std::string forDisplay(std::string_view text, std::size_t columns = maxShownColumns);

/// What two names that look alike have in common: compatible forms made one (NFKC) and case folded, without invisible
/// characters, white space at the ends, and all but one blank of other white space. For comparing, not for showing.
[[nodiscard]] std::string lookOf(std::string_view name);

/// What follows the last "/" once trailing slashes are dropped; "/" for a text of slashes alone, "" for "".
[[nodiscard]] std::string lastPathComponent(std::string_view path);

/// What follows the last "." of a file name; "" if there is none, if it is the first character (".bashrc") or the last.
[[nodiscard]] std::string pathExtension(std::string_view name);

/// The file name without its path extension and the dot before it.
[[nodiscard]] std::string withoutPathExtension(std::string_view name);

/// A limit of time, as the texts of failures have it: "10 seconds", "0.5 seconds", "5 minutes".
[[nodiscard]] std::string timeInWords(Seconds limit);

} // namespace orlinth
