#pragma once

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

/// What follows the last "/" once trailing slashes are dropped; "/" for a text of slashes alone, "" for "".
[[nodiscard]] std::string lastPathComponent(std::string_view path);

/// What follows the last "." of a file name; "" if there is none, if it is the first character (".bashrc") or the last.
[[nodiscard]] std::string pathExtension(std::string_view name);

/// The file name without its path extension and the dot before it.
[[nodiscard]] std::string withoutPathExtension(std::string_view name);

} // namespace orlinth
