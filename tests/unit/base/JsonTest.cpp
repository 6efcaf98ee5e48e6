#include "base/Json.h"

#include <gtest/gtest.h>

#include <functional>

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

} // namespace
} // namespace orlinth
