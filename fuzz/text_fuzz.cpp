#include "base/Text.h"

#include "base/Bytes.h"

#include <cstdlib>
#include <span>

namespace {

void check(bool holds) {
    if (!holds) {
        std::abort();
    }
}

} // namespace

/// Whatever bytes others choose, what is made of them for people and for files is UTF-8 and stays within its bounds.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = orlinth::toText(std::as_bytes(std::span(data, size)));
    const bool isUtf8 = orlinth::isUtf8(text);
    const std::string visible = orlinth::madeVisible(text);
    check(orlinth::isUtf8(visible));
    constexpr std::size_t isShort = 64 << 10; // a pass more over a long one shows nothing new
    check(visible.size() > isShort || orlinth::madeVisible(visible) == visible);
    check(isUtf8 ? orlinth::toUtf8(text) == text : orlinth::isUtf8(orlinth::toUtf8(text)));
    check(text.starts_with(orlinth::firstCharacters(text, 3)));
    check(orlinth::isUtf8(orlinth::lowerCased(text)) == isUtf8);
    constexpr std::size_t columns = 40;
    check(orlinth::columnsOf(orlinth::forDisplay(text, columns)) <= columns);
    return 0;
}
