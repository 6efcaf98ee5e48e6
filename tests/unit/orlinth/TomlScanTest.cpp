#include "orlinth/Program/TomlScan.h"

#include <gtest/gtest.h>

#include <string>

namespace orlinth::cli {
namespace {

/// "2:5", or "" if there is none.
std::string placeIn(std::string_view toml) {
    const std::optional<SettingsPlace> place = findForeignCharacter(toml);
    return place ? std::to_string(place->line) + ":" + std::to_string(place->column) : "";
}

TEST(TomlScan, FindsCharactersBeyondAsciiInNamesAndValuesAndBetweenThem) {
    EXPECT_EQ("1:1", placeIn("\xC9\x9E"));
    EXPECT_EQ("1:1", placeIn("é = 1"));
    EXPECT_EQ("2:5", placeIn("[a]\nb = \xC2\xA0 1"));
    EXPECT_EQ("1:5", placeIn("a = “not quotes”"));
    EXPECT_EQ("1:9", placeIn("a = 'é' é")) << "in characters";
    EXPECT_EQ("3:1", placeIn("# é\r\na = 1\r\né"));
    EXPECT_EQ("1:1", placeIn("\xFF")) << "also what is no character";
    EXPECT_EQ("1:2", placeIn("\xEF\xBB\xBF\xEF\xBB\xBF"));
}

TEST(TomlScan, LetsThemStandInCommentsAndInEachKindOfString) {
    for (const char* toml : {
             "",
             "a = 1",
             "# é",
             "a = 1 # é 'é\n",
             "a = 'é'",
             R"(a = "é")",
             R"("é" = 1)",
             "'é'.b = 1",
             "a = '''é\né'''",
             "a = \"\"\"é\né\"\"\"",
             "a = '' # é",
             R"(a = "" # é)",
             R"(a = '\' # é)",
             R"(a = "\" é" # é)",
             R"(a = "\\" # é)",
             R"(a = '"é')",
             R"(a = "'é")",
             "a = '''' é''' # é",
             "a = '''é'' é''' # é",
             "a = '''''''' # é",
             "a = '''é''''' # é",
             R"(a = """é\""" é""" # é)",
             "a = [ 'é', # é\n 'é' ]",
             "\xEF\xBB\xBF# é",
         }) {
        EXPECT_EQ("", placeIn(toml)) << toml;
    }
}

TEST(TomlScan, FindsThemBehindEachKindOfString) {
    EXPECT_EQ("1:8", placeIn("a = '' é"));
    EXPECT_EQ("1:8", placeIn(R"(a = "" é)"));
    EXPECT_EQ("1:9", placeIn(R"(a = '\' é)"));
    EXPECT_EQ("1:9", placeIn(R"(a = "\\"é)"));
    EXPECT_EQ("1:12", placeIn("a = '''''' é"));
    EXPECT_EQ("2:5", placeIn("a = '''\na'''é"));
    EXPECT_EQ("2:7", placeIn("a = \"\"\"\na\"\"\"\"\"é"));
}

TEST(TomlScan, LooksNoFurtherThanAStringThatIsNotClosed) {
    for (const char* toml :
         {"a = 'é\né", "a = \"é\né", "a = '''é\n\né", "a = \"\"\"é\n\né", "a = \"\\", "a = '", "'", "\"\"\"\\"}) {
        EXPECT_EQ("", placeIn(toml)) << toml;
    }
}

} // namespace
} // namespace orlinth::cli
