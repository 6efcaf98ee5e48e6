#include "orlinth/Asking/Answer.h"

#include <gtest/gtest.h>

namespace orlinth::cli {
namespace {

TEST(AnswerTest, IsAYesInAnyLetterCaseWithAnythingBlankAround) {
    for (const char* yes : {"y", "Y", "yes", "YES", "Yes\n", "  y \r\n"}) {
        EXPECT_TRUE(Answer::isYes(yes)) << yes;
    }
}

TEST(AnswerTest, IsANoOtherwise) {
    for (const char* no : {"", "\n", "n", "no", "ye", "yess", "y y", "j", "\xff"}) {
        EXPECT_FALSE(Answer::isYes(no)) << no;
    }
}

} // namespace
} // namespace orlinth::cli
