#include "base/Json.h"

#include <cmath>

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

} // namespace

Json parseJson(std::string_view text) {
    // The library takes a NUL for the end of the text and would let anything stand behind it.
    if (const std::size_t nul = text.find('\0'); nul != std::string_view::npos) {
        throw JsonError("not valid JSON at byte " + std::to_string(nul + 1));
    }
    const auto boundDepth = [](int depth, Json::parse_event_t event, const Json&) {
        const bool opens = event == Json::parse_event_t::object_start || event == Json::parse_event_t::array_start;
        if (opens && depth >= maxJsonDepth) {
            throw JsonError("nested deeper than " + std::to_string(maxJsonDepth) + " levels");
        }
        return true;
    };
    try {
        return Json::parse(text.begin(), text.end(), boundDepth);
    } catch (const Json::exception& error) {
        // The library quotes what it last read, which may be part of a secret: only the place is kept.
        const auto* parseError = dynamic_cast<const Json::parse_error*>(&error);
        throw JsonError(parseError != nullptr ? "not valid JSON at byte " + std::to_string(parseError->byte)
                                              : "a number is out of range");
    }
}

Json parseJson(ByteView text) {
    return parseJson(std::string_view(reinterpret_cast<const char*>(text.data()), text.size()));
}

std::string compactJson(const Json& value) {
    return dump(value);
}

std::string prettyJson(const Json& value) {
    std::string text;
    appendPretty(text, value, 0);
    return text;
}

std::string requireString(const Json& object, const char* key) {
    return stringOf(requireMember(object, key), key);
}

std::optional<std::string> optionalString(const Json& object, const char* key) {
    if (!object.is_object()) {
        throw JsonError(std::string("expected an object, found ") + object.type_name());
    }
    const auto member = object.find(key);
    if (member == object.end() || member->is_null()) {
        return std::nullopt;
    }
    return stringOf(*member, key);
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
