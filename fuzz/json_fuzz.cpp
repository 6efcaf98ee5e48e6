#include "base/Json.h"

#include <cstdlib>

namespace {

void check(bool holds) {
    if (!holds) {
        std::abort();
    }
}

bool isLimit(const std::string& text) {
    return text.starts_with("nested deeper") || text.starts_with("too ") || text == "a number is out of range";
}

} // namespace

/// Any text either is refused with a JsonError, or survives writing and reading in both styles. Apart from the limits,
/// exactly those are refused that the library would refuse.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    // The library takes a NUL for the end of the text, and recurses nowhere: a deep text is slow there, no more.
    const bool isJson = text.find('\0') == std::string_view::npos && orlinth::Json::accept(text);
    orlinth::Json value;
    try {
        value = orlinth::parseJson(text);
    } catch (const orlinth::JsonError& error) {
        check(!isJson || isLimit(error.description()));
        return 0;
    }
    check(isJson);
    check(value == orlinth::Json::parse(text));
    const std::string compact = orlinth::compactJson(value);
    const std::string pretty = orlinth::prettyJson(value);
    check(orlinth::parseJson(compact) == value);
    check(orlinth::parseJson(pretty) == value);
    check(orlinth::compactJson(orlinth::parseJson(pretty)) == compact);
    check(compact.find('\n') == std::string::npos);
    return 0;
}
