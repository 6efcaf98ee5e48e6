#include "base/Json.h"

#include "base/Hex.h"
#include "base/Text.h"

#include <charconv>
#include <cmath>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

namespace orlinth {
namespace {

const Json& requireMember(const Json& object, const char* key) {
    if (!object.is_object()) {
        throw JsonError(std::string("expected an object, found ") + object.type_name());
    }
    const auto member = object.find(key);
    if (member == object.end()) {
        throw JsonError(std::string("key \"") + key + "\" is missing");
    }
    return *member;
}

std::string stringOf(const Json& member, const char* key) {
    if (!member.is_string()) {
        throw JsonError(std::string("key \"") + key + "\": expected a string, found " + member.type_name());
    }
    return member.get<std::string>();
}

const Json& arrayOf(const Json& member, const char* key) {
    if (!member.is_array()) {
        throw JsonError(std::string("key \"") + key + "\": expected an array, found " + member.type_name());
    }
    return member;
}

std::vector<std::string> stringsOf(const Json& member, const char* key) {
    std::vector<std::string> texts;
    for (const Json& entry : arrayOf(member, key)) {
        if (!entry.is_string()) {
            throw JsonError(std::string("key \"") + key + "\": expected strings, found " + entry.type_name());
        }
        texts.push_back(entry.get<std::string>());
    }
    return texts;
}

/// Null if it is absent, or null.
const Json* optionalMember(const Json& object, const char* key) {
    if (!object.is_object()) {
        throw JsonError(std::string("expected an object, found ") + object.type_name());
    }
    const auto member = object.find(key);
    return member == object.end() || member->is_null() ? nullptr : &*member;
}

std::string dump(const Json& value) {
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void appendPretty(std::string& text, const Json& value, std::size_t depth) {
    constexpr std::size_t indentWidth = 2;
    if ((!value.is_object() && !value.is_array()) || value.empty()) {
        text += dump(value);
        return;
    }
    const std::string indent((depth + 1) * indentWidth, ' ');
    text += value.is_object() ? '{' : '[';
    bool first = true;
    for (const auto& item : value.items()) {
        text += first ? "\n" : ",\n";
        first = false;
        text += indent;
        if (value.is_object()) {
            text += dump(item.key()) + " : ";
        }
        appendPretty(text, item.value(), depth + 1);
    }
    text += '\n' + std::string(depth * indentWidth, ' ');
    text += value.is_object() ? '}' : ']';
}

/// Four hexadecimal digits, which have been judged.
char32_t codeUnit(std::string_view digits) {
    char32_t unit = 0;
    for (const char digit : digits) {
        unit = unit * 16 + hexDigit(digit).value_or(0);
    }
    return unit;
}

/// Takes what is behind "\u" off `rest`: one code unit, or the two of a surrogate pair.
char32_t takeEscapedCharacter(std::string_view& rest) {
    constexpr std::size_t digits = 4;
    constexpr char32_t firstHighSurrogate = 0xD800;
    constexpr char32_t firstLowSurrogate = 0xDC00;
    constexpr char32_t firstBehindBasicPlane = 0x10000;
    const char32_t unit = codeUnit(rest.substr(0, digits));
    rest.remove_prefix(digits);
    if (unit < firstHighSurrogate || unit >= firstLowSurrogate) {
        return unit;
    }
    rest.remove_prefix(std::string_view("\\u").size());
    const char32_t low = codeUnit(rest.substr(0, digits));
    rest.remove_prefix(digits);
    return firstBehindBasicPlane + ((unit - firstHighSurrogate) << 10U) + (low - firstLowSurrogate);
}

/// The text that was written like this between quotes. `raw` has been judged.
std::string unescaped(std::string_view raw) {
    std::string text;
    text.reserve(raw.size());
    for (;;) {
        const std::size_t plain = raw.find('\\');
        text += raw.substr(0, plain);
        if (plain == std::string_view::npos) {
            return text;
        }
        const char kind = raw[plain + 1];
        raw.remove_prefix(plain + 2);
        constexpr std::string_view kinds = "bfnrt";
        constexpr std::string_view meanings = "\b\f\n\r\t";
        if (kind == 'u') {
            appendUtf8(text, takeEscapedCharacter(raw));
        } else if (const std::size_t which = kinds.find(kind); which != std::string_view::npos) {
            text += meanings[which];
        } else {
            text += kind;
        }
    }
}

/// Nothing if it is no integer, or one that this type does not hold.
template <typename Integer>
std::optional<Integer> integerValue(std::string_view text) {
    Integer value = 0;
    const char* const end = text.data() + text.size();
    const std::from_chars_result read = std::from_chars(text.data(), end, value);
    return read.ec == std::errc() && read.ptr == end ? std::optional(value) : std::nullopt;
}

/// A number or a literal; `text` has been judged. The library's parser takes a microsecond for each, so it gets only
/// the numbers that need it.
Json scalarValue(std::string_view text) {
    switch (text.front()) {
    case 't':
        return true;
    case 'f':
        return false;
    case 'n':
        return nullptr;
    case '-':
        if (const std::optional<std::int64_t> number = integerValue<std::int64_t>(text)) {
            return *number;
        }
        break;
    default:
        if (const std::optional<std::uint64_t> number = integerValue<std::uint64_t>(text)) {
            return *number;
        }
        break;
    }
    try {
        return Json::parse(text);
    } catch (const Json::exception&) { // its own text quotes what may be part of a secret
        throw JsonError("a number is out of range");
    }
}

/// Builds the value of a text that has been judged.
class Builder final : public JsonSink {
public:
    explicit Builder(Json& root) : root_(root) {}

    void string(std::string_view raw) override { put(unescaped(raw)); }
    void key(std::string_view raw) override { key_ = unescaped(raw); }
    void scalar(std::string_view text) override { put(scalarValue(text)); }
    void openArray() override { open_.push_back(&put(Json::array())); }
    void openObject() override { open_.push_back(&put(Json::object())); }
    void close() override { open_.pop_back(); }

private:
    Json& put(Json value) {
        if (open_.empty()) {
            return root_ = std::move(value);
        }
        Json& parent = *open_.back();
        if (parent.is_array()) {
            parent.push_back(std::move(value));
            return parent.back();
        }
        return parent[std::move(key_)] = std::move(value);
    }

    Json& root_;
    std::vector<Json*> open_; ///< from the outside; each stays where it is until it is closed
    std::string key_;         ///< of the next member
};

} // namespace

Json parseJson(std::string_view text, std::int64_t maxValues) {
    JsonSink judge;
    scanJson(text, maxValues, judge);
    Json value;
    Builder builder(value);
    scanJson(text, maxValues, builder);
    return value;
}

Json parseJson(ByteView text, std::int64_t maxValues) {
    return parseJson(std::string_view(reinterpret_cast<const char*>(text.data()), text.size()), maxValues);
}

Json parseJson(std::string_view text) {
    return parseJson(text, maxJsonValues(text.size()));
}

Json parseJson(ByteView text) {
    return parseJson(text, maxJsonValues(text.size()));
}

std::string compactJson(const Json& value) {
    return dump(value);
}

std::string asciiJson(const Json& value) {
    return value.dump(-1, ' ', true, Json::error_handler_t::replace);
}

std::string prettyJson(const Json& value) {
    std::string text;
    appendPretty(text, value, 0);
    return text;
}

std::string requireString(const Json& object, const char* key) {
    return stringOf(requireMember(object, key), key);
}

const Json& requireArray(const Json& object, const char* key) {
    return arrayOf(requireMember(object, key), key);
}

std::vector<std::string> requireStrings(const Json& object, const char* key) {
    return stringsOf(requireMember(object, key), key);
}

std::optional<std::string> optionalString(const Json& object, const char* key) {
    const Json* const member = optionalMember(object, key);
    return member != nullptr ? std::optional(stringOf(*member, key)) : std::nullopt;
}

std::optional<std::vector<std::string>> optionalStrings(const Json& object, const char* key) {
    const Json* const member = optionalMember(object, key);
    return member != nullptr ? std::optional(stringsOf(*member, key)) : std::nullopt;
}

std::int64_t requireInt64(const Json& object, const char* key) {
    const Json& member = requireMember(object, key);
    if (member.is_number_unsigned() && !std::in_range<std::int64_t>(member.get<std::uint64_t>())) {
        throw JsonError(std::string("key \"") + key + "\": number is out of range");
    }
    if (member.is_number_integer()) {
        return member.get<std::int64_t>();
    }
    if (member.is_number_float()) {
        // "1e3" and "1024.0" are whole numbers too, as long as a double holds them exactly.
        constexpr double exactLimit = 9007199254740992.0; // 2^53
        const double number = member.get<double>();
        if (std::trunc(number) == number && std::abs(number) <= exactLimit) {
            return static_cast<std::int64_t>(number);
        }
        throw JsonError(std::string("key \"") + key + "\": number is not a 64-bit integer");
    }
    throw JsonError(std::string("key \"") + key + "\": expected an integer, found " + member.type_name());
}

} // namespace orlinth
