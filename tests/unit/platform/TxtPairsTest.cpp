#include "platform/linux/LinuxServiceDiscovery.h"

#include <gmock/gmock.h>

namespace orlinth::platform {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

TEST(TxtPairs, KeepTheirOrder) {
    EXPECT_THAT(txtPairs({"v=1", "c=2", "a=3"}), ElementsAre(Pair("v", "1"), Pair("c", "2"), Pair("a", "3")));
    EXPECT_THAT(txtPairs({}), IsEmpty());
}

TEST(TxtPairs, EndTheKeyAtTheFirstEqualsSign) {
    EXPECT_THAT(txtPairs({"pk=AA==", "x=", "y"}), ElementsAre(Pair("pk", "AA=="), Pair("x", ""), Pair("y", "")));
}

TEST(TxtPairs, LeaveStringsWithoutAKeyOut) {
    EXPECT_THAT(txtPairs({"", "=", "=value", "v=1"}), ElementsAre(Pair("v", "1")));
}

TEST(TxtPairs, HaveKeysInLowerCaseAndKeepTheFirstOfEqualOnes) {
    EXPECT_THAT(txtPairs({"Pk=1", "pk=2", "PK", "pK=3", "pkk=4"}), ElementsAre(Pair("pk", "1"), Pair("pkk", "4")));
    EXPECT_THAT(txtPairs({"SEC=AbC"}), ElementsAre(Pair("sec", "AbC")));
    EXPECT_THAT(txtPairs({"pk", "pk=2"}), ElementsAre(Pair("pk", "")));
}

TEST(TxtPairs, TakeAnyBytes) {
    const std::string nul("a\0b=c\0\xFF", 7);
    EXPECT_THAT(txtPairs({nul}), ElementsAre(Pair(std::string("a\0b", 3), std::string("c\0\xFF", 3))));
}

TEST(TxtPairs, TakeManyStrings) {
    std::vector<std::string> strings;
    for (int number = 0; number < 30000; ++number) {
        strings.push_back(std::to_string(number % 20000));
    }
    EXPECT_THAT(txtPairs(strings), SizeIs(20000));
}

} // namespace
} // namespace orlinth::platform
