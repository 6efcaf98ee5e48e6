#include "base/Text.h"

#include "Demand.h"
#include "base/Bytes.h"

#include <span>

using orlinth::fuzzing::demand;

/// Whatever bytes others choose, what is made of them for people and for files is UTF-8 and stays within its bounds.
/// The first byte chooses what is made, so that a long text is read a few times and not a dozen.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::string text = orlinth::toText(std::as_bytes(std::span(data + 1, size - 1)));
    constexpr std::size_t columns = 40;
    constexpr int kinds = 4;
    switch (*data % kinds) {
    case 0: {
        const std::string visible = orlinth::madeVisible(text);
        demand(orlinth::isUtf8(visible), "what is made visible is UTF-8");
        constexpr std::size_t isShort = 64 << 10; // one more pass over a long one shows nothing new
        demand(visible.size() > isShort || orlinth::madeVisible(visible) == visible, "what is visible stays as it is");
        break;
    }
    case 1: {
        const std::string whole = orlinth::toUtf8(text);
        demand(orlinth::isUtf8(text) ? whole == text : orlinth::isUtf8(whole), "toUtf8 changes only what is not UTF-8");
        break;
    }
    case 2:
        demand(orlinth::isUtf8(orlinth::lowerCased(text)) == orlinth::isUtf8(text), "lower case keeps UTF-8");
        break;
    default:
        demand(text.starts_with(orlinth::firstCharacters(text, 3)), "the first characters are a beginning");
        demand(orlinth::columnsOf(orlinth::forDisplay(text, columns)) <= columns, "a shown text keeps to its columns");
    }
    return 0;
}
