#include "base/Text.h"

#include <utf8proc.h>

#include <array>
#include <cstdio>

namespace orlinth {
namespace {

struct Character {
    utf8proc_int32_t codePoint; // negative: one byte that is not UTF-8
    std::string_view bytes;
};

/// Takes the first character off `rest`, which must not be empty.
Character takeCharacter(std::string_view& rest) {
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

} // namespace orlinth
