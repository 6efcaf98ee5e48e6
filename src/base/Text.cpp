#include "base/Text.h"

#include <utf8proc.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>

namespace orlinth {
namespace {

struct Character {
    utf8proc_int32_t codePoint; // negative: one byte that is not UTF-8
    std::string_view bytes;
};

constexpr bool isAscii(utf8proc_int32_t codePoint) noexcept {
    return codePoint >= 0 && codePoint < 0x80;
}

/// Takes the first character off `rest`, which must not be empty.
Character takeCharacter(std::string_view& rest) {
    const auto first = static_cast<unsigned char>(rest.front());
    if (isAscii(first)) { // most are, and texts may be long
        const Character character{first, rest.substr(0, 1)};
        rest.remove_prefix(1);
        return character;
    }
    utf8proc_int32_t codePoint = -1;
    const auto* start = reinterpret_cast<const utf8proc_uint8_t*>(rest.data());
    const utf8proc_ssize_t length = utf8proc_iterate(start, static_cast<utf8proc_ssize_t>(rest.size()), &codePoint);
    const std::size_t taken = length > 0 ? static_cast<std::size_t>(length) : 1;
    const Character character{length > 0 ? codePoint : -1, rest.substr(0, taken)};
    rest.remove_prefix(taken);
    return character;
}

void append(std::string& text, utf8proc_int32_t codePoint) {
    std::array<utf8proc_uint8_t, 4> bytes{};
    const utf8proc_ssize_t length = utf8proc_encode_char(codePoint, bytes.data());
    text.append(reinterpret_cast<const char*>(bytes.data()), static_cast<std::size_t>(length));
}

bool isSpace(utf8proc_int32_t codePoint) {
    if ((codePoint >= 0x09 && codePoint <= 0x0d) || codePoint == 0x85) {
        return true;
    }
    if (isAscii(codePoint)) {
        return codePoint == ' ';
    }
    switch (utf8proc_category(codePoint)) {
    case UTF8PROC_CATEGORY_ZS:
    case UTF8PROC_CATEGORY_ZL:
    case UTF8PROC_CATEGORY_ZP:
        return true;
    default:
        return false;
    }
}

bool isInvisible(utf8proc_int32_t codePoint) {
    if (isAscii(codePoint)) {
        return codePoint < ' ' || codePoint == 0x7f;
    }
    switch (utf8proc_category(codePoint)) {
    case UTF8PROC_CATEGORY_CC:
    case UTF8PROC_CATEGORY_CF:
    case UTF8PROC_CATEGORY_ZL:
    case UTF8PROC_CATEGORY_ZP:
        return true;
    default:
        return false;
    }
}

/// Wide scripts begin at U+1100 (Hangul Jamo), in UTF-8 at E1 84 80.
std::size_t columnsOfCharacter(std::string_view character) {
    const bool threeBytesOrMore = character.size() >= 3;
    if (!threeBytesOrMore) {
        return 1;
    }
    const auto first = static_cast<unsigned char>(character[0]);
    const auto second = static_cast<unsigned char>(character[1]);
    const bool generalPunctuation = first == 0xE2 && second <= 0x81;
    return (first == 0xE0 || (first == 0xE1 && second < 0x84) || generalPunctuation) ? 1 : 2;
}

/// The last so many bytes at most, from where a character begins.
std::string_view lastBytes(std::string_view text, std::size_t bytes) {
    std::size_t begin = text.size() - std::min(text.size(), bytes);
    // 10xxxxxx continues a character; none has more than three such bytes
    for (int steps = 0; steps < 3 && begin < text.size() && (static_cast<unsigned char>(text[begin]) & 0xC0) == 0x80;
         ++steps) {
        ++begin;
    }
    return text.substr(begin);
}

/// As many characters at the end as fit into `columns`.
std::string_view lastColumns(std::string_view utf8, std::size_t columns) {
    std::size_t tooMany = columnsOf(utf8);
    while (tooMany > columns) {
        tooMany -= columnsOfCharacter(takeCharacter(utf8).bytes);
    }
    return utf8;
}

} // namespace

bool isUtf8(std::string_view text) {
    while (!text.empty()) {
        if (takeCharacter(text).codePoint < 0) {
            return false;
        }
    }
    return true;
}

void appendUtf8(std::string& text, char32_t character) {
    append(text, static_cast<utf8proc_int32_t>(character));
}

std::string toUtf8(std::string_view text) {
    constexpr utf8proc_int32_t replacementCharacter = 0xfffd;
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const Character character = takeCharacter(text);
        if (character.codePoint < 0) {
            append(result, replacementCharacter);
        } else {
            result.append(character.bytes);
        }
    }
    return result;
}

std::string lowerCased(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const Character character = takeCharacter(text);
        if (character.codePoint < 0) {
            result.append(character.bytes);
        } else {
            append(result, utf8proc_tolower(character.codePoint));
        }
    }
    return result;
}

std::string caseFolded(std::string_view text) {
    const auto* start = reinterpret_cast<const utf8proc_uint8_t*>(text.data());
    utf8proc_uint8_t* folded = nullptr;
    const utf8proc_ssize_t length = utf8proc_map(
        start, static_cast<utf8proc_ssize_t>(text.size()), &folded,
        static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_DECOMPOSE | UTF8PROC_CASEFOLD | UTF8PROC_IGNORE));
    const std::unique_ptr<utf8proc_uint8_t, decltype(&std::free)> owner(folded, &std::free);
    return length < 0 ? lowerCased(text)
                      : std::string(reinterpret_cast<const char*>(folded), static_cast<std::size_t>(length));
}

std::string trimmed(std::string_view text) {
    std::size_t begin = 0;
    std::size_t end = 0; // behind the last character that stays
    bool seenInk = false;
    std::string_view rest = text;
    while (!rest.empty()) {
        const Character character = takeCharacter(rest);
        const std::size_t behind = text.size() - rest.size();
        if (character.codePoint >= 0 && isSpace(character.codePoint)) {
            continue;
        }
        if (!seenInk) {
            begin = behind - character.bytes.size();
            seenInk = true;
        }
        end = behind;
    }
    return std::string(text.substr(begin, end - begin));
}

bool hasControlCharacter(std::string_view text) noexcept {
    unsigned char before = 0;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        const bool isC1 = before == 0xC2 && byte >= 0x80 && byte <= 0x9F; // U+0080 to U+009F as UTF-8
        if (byte < 0x20 || byte == 0x7F || isC1) {
            return true;
        }
        before = byte;
    }
    return false;
}

std::string firstCharacters(std::string_view text, std::size_t count) {
    std::string result;
    std::string_view rest = text;
    utf8proc_int32_t state = 0;
    utf8proc_int32_t previous = -1;
    std::size_t begun = 0;
    while (!rest.empty()) {
        const Character character = takeCharacter(rest);
        const bool startsNew = previous < 0 || character.codePoint < 0 ||
                               utf8proc_grapheme_break_stateful(previous, character.codePoint, &state);
        if (startsNew && ++begun > count) {
            break;
        }
        result.append(character.bytes);
        previous = character.codePoint;
    }
    return result;
}

std::string firstCharactersWithin(std::string_view text, std::size_t bytes) {
    std::string_view rest = text;
    utf8proc_int32_t state = 0;
    utf8proc_int32_t previous = -1;
    std::size_t end = 0;      // of the code points that fit
    std::size_t boundary = 0; // the last one that a character begins at
    while (!rest.empty()) {
        const Character character = takeCharacter(rest);
        const bool startsNew = previous < 0 || character.codePoint < 0 ||
                               utf8proc_grapheme_break_stateful(previous, character.codePoint, &state);
        boundary = startsNew ? end : boundary;
        if (end + character.bytes.size() > bytes) {
            return std::string(text.substr(0, boundary > 0 ? boundary : end));
        }
        end += character.bytes.size();
        previous = character.codePoint;
    }
    return std::string(text);
}

std::string madeVisible(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const Character character = takeCharacter(text);
        std::array<char, 16> escaped{};
        if (character.codePoint < 0) {
            const unsigned byte = static_cast<unsigned char>(character.bytes.front());
            std::snprintf(escaped.data(), escaped.size(), "\\x{%02X}", byte);
            result.append(escaped.data());
        } else if (isInvisible(character.codePoint)) {
            const auto codePoint = static_cast<unsigned>(character.codePoint);
            std::snprintf(escaped.data(), escaped.size(), "\\u{%04X}", codePoint);
            result.append(escaped.data());
        } else {
            result.append(character.bytes);
        }
    }
    return result;
}

std::size_t columnsOf(std::string_view utf8) {
    std::size_t columns = 0;
    while (!utf8.empty()) {
        columns += columnsOfCharacter(takeCharacter(utf8).bytes);
    }
    return columns;
}

std::string_view firstColumns(std::string_view utf8, std::size_t columns) {
    std::string_view rest = utf8;
    std::size_t used = 0;
    while (!rest.empty()) {
        const std::string_view before = rest;
        used += columnsOfCharacter(takeCharacter(rest).bytes);
        if (used > columns) {
            return utf8.substr(0, utf8.size() - before.size());
        }
    }
    return utf8;
}

std::string forDisplay(std::string_view text, std::size_t columns) {
    constexpr std::string_view gap = "…";
    constexpr std::size_t longestCharacter = 4;
    constexpr std::size_t endsShare = 4; // what comes first says more than what comes last
    // A character has at most four bytes and takes at least one column, also when it is made visible.
    const std::size_t most = (columns + 1) * longestCharacter;
    if (text.size() <= most) {
        std::string whole = madeVisible(text);
        if (columnsOf(whole) <= columns) {
            return whole;
        }
    }
    if (columns == 0) {
        return {};
    }
    const std::size_t forText = columns - 1;
    const std::string front = madeVisible(text.substr(0, most));
    const std::string end = madeVisible(lastBytes(text, most));
    std::string shortened(firstColumns(front, forText - forText / endsShare));
    shortened += gap;
    shortened += lastColumns(end, forText / endsShare);
    return shortened;
}

std::string lookOf(std::string_view name) {
    struct Free {
        void operator()(utf8proc_uint8_t* text) const noexcept { std::free(text); }
    };
    constexpr auto options = static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_COMPOSE | UTF8PROC_COMPAT |
                                                            UTF8PROC_CASEFOLD | UTF8PROC_IGNORE);
    const std::string utf8 = toUtf8(name);
    utf8proc_uint8_t* made = nullptr;
    const utf8proc_ssize_t length = utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(utf8.data()),
                                                 static_cast<utf8proc_ssize_t>(utf8.size()), &made, options);
    const std::unique_ptr<utf8proc_uint8_t, Free> folded(made);
    if (length < 0) {
        throw std::bad_alloc(); // UTF-8 fails for no other reason
    }
    std::string look;
    std::string_view rest(reinterpret_cast<const char*>(folded.get()), static_cast<std::size_t>(length));
    while (!rest.empty()) {
        const Character character = takeCharacter(rest);
        if (!isSpace(character.codePoint)) {
            look.append(character.bytes);
        } else if (!look.empty() && look.back() != ' ') {
            look += ' ';
        }
    }
    if (!look.empty() && look.back() == ' ') {
        look.pop_back();
    }
    return look;
}

std::string lastPathComponent(std::string_view path) {
    const std::size_t lastInk = path.find_last_not_of('/');
    if (lastInk == std::string_view::npos) {
        return path.empty() ? "" : "/";
    }
    path = path.substr(0, lastInk + 1);
    const std::size_t slash = path.rfind('/');
    return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

std::string pathExtension(std::string_view name) {
    const std::size_t dot = name.rfind('.');
    if (dot == std::string_view::npos || dot == 0 || dot + 1 == name.size()) {
        return "";
    }
    return std::string(name.substr(dot + 1));
}

std::string withoutPathExtension(std::string_view name) {
    const std::string extension = pathExtension(name);
    return std::string(extension.empty() ? name : name.substr(0, name.size() - extension.size() - 1));
}

std::string timeInWords(Seconds limit) {
    const double minutes = std::chrono::duration<double, std::chrono::minutes::period>(limit).count();
    const bool isInMinutes = minutes > 1 && std::trunc(minutes) == minutes;
    std::string number = std::to_string(isInMinutes ? minutes : limit.count());
    number.erase(number.find_last_not_of('0') + 1);
    if (number.ends_with('.')) {
        number.pop_back();
    }
    return number + (isInMinutes ? " minutes" : number == "1" ? " second" : " seconds");
}

} // namespace orlinth
