#include "orlinth/Reporting/Output.h"

#include "base/Text.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <unistd.h>

namespace orlinth::cli {
namespace {

/// What is written to the two streams meanwhile.
struct Said {
    std::string result;
    std::string messages;
};

Said said(const std::function<void()>& speak) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    speak();
    return {.result = testing::internal::GetCapturedStdout(), .messages = testing::internal::GetCapturedStderr()};
}

const std::string endless = "begins\u202e" + std::string(std::size_t{1} << 20, 'x') + "\nends";

void expectOneShortLine(const std::string& text, const std::string& begin) {
    EXPECT_TRUE(text.starts_with(begin + "\\u{202E}xxx")) << text.substr(0, 100);
    EXPECT_TRUE(text.ends_with("ends\n"));
    EXPECT_EQ(text.find('\n'), text.size() - 1);
    EXPECT_LE(columnsOf(text), maxLineColumns + std::string("orlinth: ").size() + 1);
}

TEST(Output, NoLineForPeopleIsLongOrHidesAnything) {
    Output output;
    expectOneShortLine(said([&] { output.result(endless); }).result, "begins");
    expectOneShortLine(said([&] { output.message(endless); }).messages, "begins");
    expectOneShortLine(said([&] { output.failure(endless); }).messages, "orlinth: begins");
    const std::string both = said([&] { output.failure("short", endless); }).messages;
    EXPECT_TRUE(both.starts_with("orlinth: short\n"));
    expectOneShortLine(both.substr(both.find('\n') + 1), "begins");
}

TEST(Output, APageStaysAsItIs) {
    Output output;
    const std::string page = "\x1b[7m  \x1b[0m\n" + std::string(5000, '#');
    EXPECT_EQ(said([&] { output.page(page); }).result, page + "\n");
    output.useJson();
    EXPECT_EQ(said([&] { output.page(page); }).result, "");
}

TEST(Output, ScriptsGetTheWholeValueInAscii) {
    Output output;
    output.useJson();
    const std::string event = said([&] { output.event("clipboard", {{"text", endless}}); }).result;
    EXPECT_EQ(parseJson(event.substr(0, event.size() - 1)).at("text").get<std::string>(), endless);
    EXPECT_EQ(event.find_first_of("\u202e"), std::string::npos);
    const Said failed = said([&] { output.failure(endless); });
    EXPECT_EQ(parseJson(failed.result.substr(0, failed.result.size() - 1)).at("message").get<std::string>(), endless);
    EXPECT_LT(failed.messages.size(), 5000U);
}

} // namespace
} // namespace orlinth::cli
