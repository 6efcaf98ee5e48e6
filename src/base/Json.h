#pragma once

#include "base/Bytes.h"
#include "base/Error.h"
#include "base/JsonScan.h"

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <vector>

namespace orlinth {

/// A JSON value. Object members are kept and written in the order of their keys' bytes.
using Json = nlohmann::json;

/// A text that is not JSON, or JSON that is not what was asked for. The text says what and where.
class JsonError : public Error {
public:
    explicit JsonError(std::string text) : Error(std::move(text)) {}
};

/// Parses one JSON text (RFC 8259). Of duplicate keys the last one wins. The text is judged as a whole before anything
/// is built. Time is in proportion to its length; memory is at most three times a text of 16 MiB, and for shorter ones
/// what their values take (maxJsonValues()).
/// @throws JsonError where it is malformed, is not UTF-8, goes beyond a limit of scanJson(), has a number that a double
///         or a 64-bit integer cannot hold, or has anything but white space behind its end.
[[nodiscard]] Json parseJson(ByteView text);
[[nodiscard]] Json parseJson(std::string_view text);
/// The same with at most `maxValues` values.
[[nodiscard]] Json parseJson(ByteView text, std::int64_t maxValues);
[[nodiscard]] Json parseJson(std::string_view text, std::int64_t maxValues);

/// Compact form: keys sorted, no white space, "/" not escaped, everything but controls in plain UTF-8.
/// Texts must be UTF-8; a byte that is not becomes U+FFFD.
[[nodiscard]] std::string compactJson(const Json& value);

/// The same value in ASCII alone: everything else, and DEL, is written as \uXXXX, so that no text in it can act on the
/// terminal that it is shown on.
[[nodiscard]] std::string asciiJson(const Json& value);

/// Form for files that people read: keys sorted, two-space indents, `"key" : value`, "/" not escaped, no line end
/// behind the last brace.
[[nodiscard]] std::string prettyJson(const Json& value);

/// The members of an object, read by type. Unknown members are nobody's business.
/// All throw JsonError: not an object, a missing member, a member of another type or out of range.
[[nodiscard]] std::string requireString(const Json& object, const char* key);
[[nodiscard]] std::int64_t requireInt64(const Json& object, const char* key);
/// A list, of whatever. Refers into `object`.
[[nodiscard]] const Json& requireArray(const Json& object, const char* key);
/// A list of nothing but texts, in its order.
[[nodiscard]] std::vector<std::string> requireStrings(const Json& object, const char* key);
/// Members that may be absent (or null).
[[nodiscard]] std::optional<std::string> optionalString(const Json& object, const char* key);
[[nodiscard]] std::optional<std::vector<std::string>> optionalStrings(const Json& object, const char* key);

} // namespace orlinth
