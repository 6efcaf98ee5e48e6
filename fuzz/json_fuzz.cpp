#include "base/Json.h"

#include <cstdlib>

namespace {

void check(bool holds) {
    if (!holds) {
        std::abort();
    }
}

} // namespace

/// Any text either is refused with a JsonError, or survives writing and reading in both styles.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    orlinth::Json value;
    try {
        value = orlinth::parseJson(std::as_bytes(std::span(data, size)));
    } catch (const orlinth::JsonError& error) {
        check(!error.description().empty());
        return 0;
    }
    const std::string compact = orlinth::compactJson(value);
    const std::string pretty = orlinth::prettyJson(value);
    check(orlinth::parseJson(compact) == value);
    check(orlinth::parseJson(pretty) == value);
    check(orlinth::compactJson(orlinth::parseJson(pretty)) == compact);
    check(compact.find('\n') == std::string::npos);
    return 0;
}
