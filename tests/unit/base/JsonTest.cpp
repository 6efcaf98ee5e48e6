#include "base/Json.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <fstream>
#include <functional>
#include <malloc.h>
#include <string>
#include <utility>
#include <vector>

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ORLINTH_SANITIZER_HEAP 1
#endif
#endif

namespace orlinth {
namespace {

std::string errorOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const JsonError& error) {
        return error.description();
    }
    return "no error";
}

std::string parseError(std::string_view text) {
    return errorOf([text] { static_cast<void>(parseJson(text)); });
}

std::string nested(int depth) {
    return std::string(static_cast<std::size_t>(depth), '[') + std::string(static_cast<std::size_t>(depth), ']');
}

TEST(Json, ParsesEveryKindOfValue) {
    const Json value = parseJson(R"( {"a":[1,-2,0.5,true,false,null,"x\u00e4\ud83d\ude00"]} )");
    EXPECT_EQ(value["a"].size(), 7U);
    EXPECT_EQ(value["a"][6], "x\u00e4\U0001f600");
}

TEST(Json, TakesTheLastOfDuplicateKeys) {
    EXPECT_EQ(requireInt64(parseJson(R"({"a":1,"b":0,"a":2})"), "a"), 2);
}

TEST(Json, RefusesMalformedTexts) {
    for (const char* text : {"",
                             " ",
                             "{",
                             "}",
                             "[1,]",
                             "{\"a\":1,}",
                             "{a:1}",
                             "{'a':1}",
                             "01",
                             "1.",
                             ".5",
                             "+1",
                             "1e",
                             "nul",
                             "NaN",
                             "Infinity",
                             "\"a",
                             "\"\n\"",
                             "\"\\x\"",
                             "\"\\ud800\"",
                             "\"\\ud800\\u0041\"",
                             "\"\\udc00\"",
                             "{} {}",
                             "1 2",
                             "[1] x",
                             "// c\n1",
                             "/* c */1"}) {
        EXPECT_TRUE(parseError(text).starts_with("not valid JSON at byte ")) << text << ": " << parseError(text);
    }
}

TEST(Json, LetsNothingStandBehindANul) {
    EXPECT_EQ(parseError(std::string_view("{}\0garbage", 10)), "not valid JSON at byte 3");
    EXPECT_EQ(parseError(std::string_view("1\0", 2)), "not valid JSON at byte 2");
}

TEST(Json, RefusesTextsThatAreNotUtf8) {
    for (const char* text : {"\"\xff\"", "\"\xc0\x80\"", "\"\xed\xa0\x80\"", "\"\xe2\x82\"", "{\"\xfe\":1}"}) {
        EXPECT_TRUE(parseError(text).starts_with("not valid JSON at byte ")) << testing::PrintToString(text);
    }
}

TEST(Json, TakesAByteOrderMarkAtTheFront) {
    EXPECT_EQ(parseJson("\xEF\xBB\xBF[1]"), Json::array({1}));
    EXPECT_EQ(parseError("[\xEF\xBB\xBF]"), "not valid JSON at byte 2");
    EXPECT_EQ(parseError("\xEF\xBB[1]"), "not valid JSON at byte 1");
}

TEST(Json, ReadsABytewiseTextToo) {
    EXPECT_EQ(parseJson(asBytes("[1]")), Json::array({1}));
}

TEST(Json, BoundsTheDepth) {
    EXPECT_EQ(parseJson(nested(maxJsonDepth)).size(), 1U);
    EXPECT_EQ(parseError(nested(maxJsonDepth + 1)), "nested deeper than 32 levels");
    EXPECT_EQ(parseError(std::string(1'000'000, '[')), "nested deeper than 32 levels");
    std::string objects;
    for (int i = 0; i < maxJsonDepth + 1; ++i) {
        objects += "{\"a\":";
    }
    EXPECT_EQ(parseError(objects), "nested deeper than 32 levels");
}

std::string repeated(std::string_view piece, std::size_t count) {
    std::string text;
    text.reserve(piece.size() * count);
    for (std::size_t i = 0; i < count; ++i) {
        text += piece;
    }
    return text;
}

TEST(Json, BoundsTheNumberOfValues) {
    constexpr auto most = static_cast<std::size_t>(maxJsonValues(0));
    EXPECT_EQ(parseJson("[" + repeated("0,", most - 2) + "0]").size(), most - 1); // the array is a value too
    EXPECT_EQ(parseError("[" + repeated("0,", most - 1) + "0]"), "too many values");
    EXPECT_EQ(parseError("[" + repeated("{},", most - 1) + "{}]"), "too many values");
    EXPECT_EQ(parseError("{" + repeated("\"\":[],", most) + "\"\":[]}"), "too many values");
    EXPECT_EQ(errorOf([] { static_cast<void>(parseJson(R"({"a":1,"b":[2]})", 3)); }), "too many values");
    EXPECT_EQ(parseJson(R"({"a":1,"b":[2]})", 4).size(), 2U);
}

TEST(Json, BoundsTheLengthOfNumbers) {
    EXPECT_TRUE(parseJson("0." + std::string(maxJsonScalarBytes - 2, '1')).is_number());
    EXPECT_EQ(parseError("[0." + std::string(maxJsonScalarBytes - 1, '1') + "]"), "too long a number at byte 2");
}

TEST(Json, SaysWhereATextGoesWrong) {
    EXPECT_EQ(parseError("[1, 2"), "not valid JSON at byte 6");
    EXPECT_EQ(parseError("{\"a\" 1}"), "not valid JSON at byte 6");
    EXPECT_EQ(parseError("[1]]"), "not valid JSON at byte 4");
    EXPECT_EQ(parseError("{\"a\":1]"), "not valid JSON at byte 7");
    EXPECT_EQ(parseError("[\"a\" \"b\"]"), "not valid JSON at byte 6");
    EXPECT_EQ(parseError("[\"a\nb\"]"), "not valid JSON at byte 4");
}

/// The largest texts that a phone may send, of every shape that might cost more than its length.
std::vector<std::pair<const char*, std::string>> hugeTexts(std::size_t bytes) {
    const std::string letters(bytes - 16, 'a');
    return {{"one string", "\"" + letters + "\""},
            {"one key", "{\"" + letters + "\":1}"},
            {"a string without an end", "\"" + letters},
            {"a string with a line end", "\"" + letters + "\n\""},
            {"a string that is not UTF-8", "\"" + letters + "\xff\""},
            {"a string, and then another", "\"" + letters + "\" \"b\""},
            {"a string for a colon", "{\"a\" \"" + letters + "\"}"},
            {"escapes", "\"" + repeated("\\u00e4", bytes / 6 - 2) + "\""},
            {"digits", std::string(bytes, '1')},
            {"white space", std::string(bytes, ' ')},
            {"zeros", "[" + repeated("0,", bytes / 2 - 2) + "0]"},
            {"empty objects", "[" + repeated("{},", bytes / 3 - 2) + "{}]"},
            {"members", "{" + repeated("\"a\":{},", bytes / 7 - 2) + "\"a\":{}}"},
            {"one member again and again",
             "{" + repeated("\"key\":\"" + std::string(200, 'x') + "\",", bytes / 210) + "\"key\":1}"},
            {"open arrays", std::string(bytes, '[')},
            {"closed arrays", std::string(bytes, ']')},
            {"short strings", "[" + repeated("\"" + std::string(200, 'x') + "\",", bytes / 203 - 2) + "0]"}};
}

double secondsToJudge(const std::string& text) {
    double best = 1e9;
    for (int attempt = 0; attempt < 3; ++attempt) {
        const std::clock_t start = std::clock();
        static_cast<void>(parseError(text));
        best = std::min(best, static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC);
    }
    return best;
}

TEST(Json, TakesTimeInProportionToTheText) {
    constexpr std::size_t size = std::size_t{1} << 17U;
    const auto few = hugeTexts(size);
    const auto many = hugeTexts(4 * size);
    for (std::size_t i = 0; i < few.size(); ++i) {
        const double one = secondsToJudge(few[i].second);
        const double four = secondsToJudge(many[i].second);
        EXPECT_LT(four, 10 * one + 0.01) << few[i].first << ": " << one << " s and " << four << " s"; // n²: 16
    }
}

#if !ORLINTH_SANITIZER_HEAP
/// Resident memory, in bytes: `VmHWM`, the most since the last reset, or `VmRSS`.
std::int64_t residentBytes(const std::string& field) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(field + ":")) {
            return std::stoll(line.substr(field.size() + 1)) * 1024;
        }
    }
    return -1;
}

TEST(Json, TakesAtMostThreeTimesTheMemoryOfTheText) {
    constexpr std::int64_t size = 4 << 20; // the limit of values holds for 16 MiB; this needs less time
    for (const auto& [what, text] : hugeTexts(static_cast<std::size_t>(size))) {
        ::malloc_trim(0);
        std::ofstream("/proc/self/clear_refs") << "5"; // sets VmHWM back
        const std::int64_t before = residentBytes("VmRSS");
        static_cast<void>(parseError(text));
        const std::int64_t taken = residentBytes("VmHWM") - before;
        EXPECT_LE(taken, 3 * size) << what;
    }
}
#endif

TEST(Json, RefusesNumbersThatADoubleCannotHold) {
    EXPECT_EQ(parseError("1e400"), "a number is out of range");
    EXPECT_EQ(parseError("[-1e999]"), "a number is out of range");
    EXPECT_EQ(parseJson("1e308").get<double>(), 1e308);
}

TEST(Json, SaysNothingOfTheContentInItsErrors) {
    EXPECT_EQ(parseError("{\"token\":secret").find("secret"), std::string::npos);
}

TEST(Json, ReadsSixtyFourBitIntegersExactly) {
    const Json value =
        parseJson(R"({"low":-9223372036854775808,"high":9223372036854775807,"whole":1024.0,"power":1e3})");
    EXPECT_EQ(requireInt64(value, "low"), INT64_MIN);
    EXPECT_EQ(requireInt64(value, "high"), INT64_MAX);
    EXPECT_EQ(requireInt64(value, "whole"), 1024);
    EXPECT_EQ(requireInt64(value, "power"), 1000);
}

TEST(Json, ReadsEveryKindOfNumberAsTheLibraryDoes) {
    for (const char* text : {"0", "-0", "7", "-7", "18446744073709551615", "18446744073709551616",
                             "9223372036854775808", "-9223372036854775808", "-9223372036854775809", "1.5", "-1.5",
                             "1e3", "-0.0", "1E-400", "true", "false", "null"}) {
        EXPECT_EQ(parseJson(text), Json::parse(text)) << text;
        EXPECT_EQ(parseJson(text).type(), Json::parse(text).type()) << text;
    }
}

TEST(Json, RefusesIntegersOutOfRange) {
    const Json value = parseJson(R"({"a":9223372036854775808,"b":-9223372036854775809,"c":18446744073709551616,
                                     "d":1.5,"e":1e19,"f":9223372036854775807.0,"g":1e300})");
    EXPECT_EQ(errorOf([&] { static_cast<void>(requireInt64(value, "a")); }), "key \"a\": number is out of range");
    for (const char* key : {"b", "c", "d", "e", "f", "g"}) {
        EXPECT_EQ(errorOf([&] { static_cast<void>(requireInt64(value, key)); }),
                  "key \"" + std::string(key) + "\": number is not a 64-bit integer");
    }
}

TEST(Json, SaysWhichMemberIsWrongAndHow) {
    const Json value = parseJson(R"({"text":"x","number":1,"none":null,"yes":true})");
    EXPECT_EQ(errorOf([&] { static_cast<void>(requireString(value, "gone")); }), "key \"gone\" is missing");
    EXPECT_EQ(errorOf([&] { static_cast<void>(requireString(value, "number")); }),
              "key \"number\": expected a string, found number");
    EXPECT_EQ(errorOf([&] { static_cast<void>(requireString(value, "none")); }),
              "key \"none\": expected a string, found null");
    EXPECT_EQ(errorOf([&] { static_cast<void>(requireInt64(value, "text")); }),
              "key \"text\": expected an integer, found string");
    EXPECT_EQ(errorOf([&] { static_cast<void>(requireInt64(value, "yes")); }),
              "key \"yes\": expected an integer, found boolean");
    EXPECT_EQ(errorOf([&] { static_cast<void>(requireInt64(Json::array(), "a")); }), "expected an object, found array");
    EXPECT_EQ(errorOf([&] { static_cast<void>(optionalString(Json(1), "a")); }), "expected an object, found number");
    EXPECT_EQ(errorOf([&] { static_cast<void>(optionalString(value, "yes")); }),
              "key \"yes\": expected a string, found boolean");
}

TEST(Json, LetsOptionalMembersBeAbsentOrNull) {
    const Json value = parseJson(R"({"text":"x","none":null})");
    EXPECT_EQ(optionalString(value, "text"), "x");
    EXPECT_EQ(optionalString(value, "none"), std::nullopt);
    EXPECT_EQ(optionalString(value, "gone"), std::nullopt);
}

TEST(Json, ReadsLists) {
    const Json object = parseJson(R"({"none":[],"texts":["b","a","b"],"mixed":["a",1],"nothing":null,"text":"a"})");
    EXPECT_EQ(requireStrings(object, "texts"), (std::vector<std::string>{"b", "a", "b"}));
    EXPECT_EQ(requireStrings(object, "none"), std::vector<std::string>());
    EXPECT_EQ(requireArray(object, "mixed").size(), 2U);
    EXPECT_EQ(optionalStrings(object, "texts"), (std::vector<std::string>{"b", "a", "b"}));
    EXPECT_EQ(optionalStrings(object, "nothing"), std::nullopt);
    EXPECT_EQ(optionalStrings(object, "absent"), std::nullopt);
}

TEST(Json, SaysWhatIsWrongWithAList) {
    const Json object = parseJson(R"({"mixed":["a",1],"nothing":null,"text":"a"})");
    const auto textOf = [](const auto& call) -> std::string {
        try {
            static_cast<void>(call());
            return "";
        } catch (const JsonError& error) {
            return error.description();
        }
    };
    EXPECT_EQ(textOf([&] { return requireStrings(object, "mixed"); }), "key \"mixed\": expected strings, found number");
    EXPECT_EQ(textOf([&] { return optionalStrings(object, "mixed"); }),
              "key \"mixed\": expected strings, found number");
    EXPECT_EQ(textOf([&] { return requireStrings(object, "text"); }), "key \"text\": expected an array, found string");
    EXPECT_EQ(textOf([&] { return requireArray(object, "nothing"); }),
              "key \"nothing\": expected an array, found null");
    EXPECT_EQ(textOf([&] { return requireArray(object, "absent"); }), "key \"absent\" is missing");
    EXPECT_EQ(textOf([&] { return requireArray(parseJson("[]"), "a"); }), "expected an object, found array");
    EXPECT_EQ(textOf([&] { return optionalStrings(parseJson("[]"), "a"); }), "expected an object, found array");
}

TEST(Json, WritesTheCompactFormSortedWithPlainSlashes) {
    const Json value = {{"b", "a/b"}, {"a", {1, true, nullptr}}, {"B", "\u00e4\n\"\\\x01"}};
    EXPECT_EQ(compactJson(value), "{\"B\":\"\u00e4\\n\\\"\\\\\\u0001\",\"a\":[1,true,null],\"b\":\"a/b\"}");
}

TEST(Json, WritesThePrettyFormAsInTheSidecarExample) {
    const Json value = {{"transfer_id", "6F1C2B0E-4D0A-4E39-9C8A-2F5D7A1B3C4D"},
                        {"advertised_size", 1048576},
                        {"started_at_epoch_ms", 1731686400000}};
    EXPECT_EQ(prettyJson(value), "{\n"
                                 "  \"advertised_size\" : 1048576,\n"
                                 "  \"started_at_epoch_ms\" : 1731686400000,\n"
                                 "  \"transfer_id\" : \"6F1C2B0E-4D0A-4E39-9C8A-2F5D7A1B3C4D\"\n"
                                 "}");
}

TEST(Json, IndentsArraysAndEmptyValuesInThePrettyForm) {
    const Json value = {{"list", {{{"k", "a/b"}}, 2}}, {"none", Json::array()}, {"empty", Json::object()}};
    EXPECT_EQ(prettyJson(value), "{\n"
                                 "  \"empty\" : {},\n"
                                 "  \"list\" : [\n"
                                 "    {\n"
                                 "      \"k\" : \"a/b\"\n"
                                 "    },\n"
                                 "    2\n"
                                 "  ],\n"
                                 "  \"none\" : []\n"
                                 "}");
}

TEST(Json, WritesBytesThatAreNotUtf8AsReplacementCharacters) {
    EXPECT_EQ(compactJson(Json("a\xff")), "\"a\ufffd\"");
    EXPECT_EQ(prettyJson(Json{{"a", "\xff"}}), "{\n  \"a\" : \"\ufffd\"\n}");
}

TEST(AsciiJson, IsTheSameValueInAsciiAlone) {
    const Json value{{"a\u00e4", "\u202egpj.exe"}, {"b", Json::array({"\U0001f600", "\x7f\x1b[2J", 1.5, nullptr})}};
    const std::string text = asciiJson(value);
    EXPECT_EQ(text, R"({"a\u00e4":"\u202egpj.exe","b":["\ud83d\ude00","\u007f\u001b[2J",1.5,null]})");
    EXPECT_EQ(parseJson(text), value);
    EXPECT_EQ(asciiJson(Json("a\xff")), R"("a\ufffd")");
    EXPECT_EQ(asciiJson(Json(std::string(100000, 'x'))).size(), 100002U) << "nothing is shortened";
}

} // namespace
} // namespace orlinth
