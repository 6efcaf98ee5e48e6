#include "platform/linux/SharedLibrary.h"

#include "platform/SystemError.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <string_view>

namespace orlinth::platform::detail {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

std::string failureOf(void (*step)()) {
    try {
        step();
    } catch (const SystemError& error) {
        return error.description();
    }
    return {};
}

TEST(SharedLibrary, GivesTheFunctionsOfALibraryByName) {
    const SharedLibrary library("libm.so.6");
    ORLINTH_LIBRARY_FUNCTION(library, floor);
    EXPECT_EQ(floor(2.5), 2.0);
}

TEST(SharedLibrary, NamesTheLibraryThatIsMissing) {
    const std::string text = failureOf([] { const SharedLibrary library("liborlinth-nowhere.so.7"); });
    EXPECT_THAT(text, StartsWith("cannot load liborlinth-nowhere.so.7: "));
}

TEST(SharedLibrary, NamesTheFunctionThatIsMissing) {
    const std::string text = failureOf([] {
        const SharedLibrary library("libm.so.6");
        static_cast<void>(library.function<void()>("orlinth_nowhere"));
    });
    EXPECT_THAT(text, StartsWith("cannot load "));
    EXPECT_THAT(text, HasSubstr("orlinth_nowhere"));
}

TEST(DlopenNote, HasTheLayoutThatPackagersToolsRead) {
    static constexpr DlopenNote note("[{}]");
    EXPECT_EQ(std::string_view(note.owner, note.ownerSize), std::string_view("FDO\0", 4));
    EXPECT_EQ(std::string_view(note.text, note.textSize), std::string_view("[{}]\0", 5));
    EXPECT_EQ(note.type, 0x407C0C0AU);
    EXPECT_EQ(sizeof note % 4, 0U) << "notes begin at multiples of four";
}

} // namespace
} // namespace orlinth::platform::detail
