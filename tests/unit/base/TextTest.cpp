#include "base/Text.h"

#include <gtest/gtest.h>

namespace orlinth {
namespace {

TEST(Text, KnowsWellFormedUtf8) {
    for (const char* text : {"", "plain", "gr\u00fc\u00df", "\u20ac", "\U0001f600", "\U0010ffff", "\ufffd"}) {
        EXPECT_TRUE(isUtf8(text)) << text;
    }
    EXPECT_TRUE(isUtf8(std::string_view("a\0b", 3)));
}

TEST(Text, PutsALimitOfTimeInWords) {
    EXPECT_EQ(timeInWords(1s), "1 second");
    EXPECT_EQ(timeInWords(10s), "10 seconds");
    EXPECT_EQ(timeInWords(500ms), "0.5 seconds");
    EXPECT_EQ(timeInWords(60s), "60 seconds");
    EXPECT_EQ(timeInWords(90s), "90 seconds");
    EXPECT_EQ(timeInWords(2min), "2 minutes");
    EXPECT_EQ(timeInWords(Seconds(300)), "5 minutes");
}

TEST(Text, RefusesOverlongFormsSurrogatesAndTornCharacters) {
    for (const char* text : {"\x80", "\xff", "\xc0\x80", "\xc1\xbf", "\xe0\x80\x80", "\xe0\x9f\xbf", "\xed\xa0\x80",
                             "\xed\xbf\xbf", "\xf0\x80\x80\x80", "\xf4\x90\x80\x80", "\xf8\x88\x80\x80\x80", "\xe2\x82",
                             "\xc3", "a\xc3z", "\xf0\x9f\x98"}) {
        EXPECT_FALSE(isUtf8(text)) << testing::PrintToString(text);
    }
}

TEST(Text, ReplacesEveryByteThatIsNotUtf8) {
    EXPECT_EQ(toUtf8("a\xff\xfe-\u00e4"), "a\ufffd\ufffd-\u00e4");
    EXPECT_EQ(toUtf8("\u00e4"), "\u00e4");
    EXPECT_EQ(toUtf8("\xed\xa0\x80"), "\ufffd\ufffd\ufffd");
    EXPECT_TRUE(isUtf8(toUtf8("\xf0\x9f\x98 \xc3")));
}

TEST(Text, LowersTheCaseOfEveryScript) {
    EXPECT_EQ(lowerCased("PIXEL-8"), "pixel-8");
    EXPECT_EQ(lowerCased("\u00c4\u00d6\u00dc \u0130"), "\u00e4\u00f6\u00fc i");
    EXPECT_EQ(lowerCased("\u0391\u0392\u03a3"), "\u03b1\u03b2\u03c3");
    EXPECT_EQ(lowerCased("\u0416\u042f"), "\u0436\u044f");
    EXPECT_EQ(lowerCased("\U00010400"), "\U00010428"); // Deseret, beyond 16 bits
    EXPECT_EQ(lowerCased("\u4e2d1!"), "\u4e2d1!");
}

TEST(Text, KeepsOddBytesWhenLoweringTheCase) {
    EXPECT_EQ(lowerCased("A\xff"
                         "B\xc3"),
              "a\xff"
              "b\xc3");
}

TEST(Text, FoldsWhatFileSystemsThatIgnoreCaseTakeForTheSame) {
    EXPECT_EQ(caseFolded("A.Partial"), "a.partial");
    EXPECT_EQ(caseFolded("J\u017fON"), "json") << "a long s";
    EXPECT_EQ(caseFolded("\u212aelvin"), "kelvin");
    EXPECT_EQ(caseFolded("a\u200b\u00ad\ufe0fb"), "ab") << "characters that show nothing";
    EXPECT_EQ(caseFolded("\u00c4"), caseFolded("A\u0308"));
    EXPECT_EQ(caseFolded("STRASSE"), caseFolded("stra\u00dfe"));
    EXPECT_EQ(caseFolded("\uff0e"), "\uff0e") << "another dot is another dot";
    EXPECT_EQ(caseFolded("A\xff"), "a\xff");
    EXPECT_EQ(caseFolded(""), "");
}

TEST(Text, TrimsUnicodeWhiteSpaceAtBothEnds) {
    EXPECT_EQ(trimmed(" \t\r\n\v\fa b\n "), "a b");
    EXPECT_EQ(trimmed("\u00a0\u3000\u2028\u2029\u0085\u2003x\u1680\u202f\u205f"), "x");
    EXPECT_EQ(trimmed("x\u00a0y"), "x\u00a0y");
    EXPECT_EQ(trimmed(" \u3000\n"), "");
    EXPECT_EQ(trimmed(""), "");
}

TEST(Text, DoesNotTrimWhatIsNoWhiteSpace) {
    EXPECT_EQ(trimmed("\u200bx\ufeff"), "\u200bx\ufeff"); // zero width space, byte order mark: formatting
    EXPECT_EQ(trimmed("\xff \x80"), "\xff \x80");
    EXPECT_EQ(trimmed(std::string_view("\0 x \0", 5)), std::string("\0 x \0", 5));
}

TEST(Text, CountsCharactersAsReadersDo) {
    const std::string flags = "\U0001f1e9\U0001f1ea\U0001f1eb\U0001f1f7"; // DE, FR
    const std::string family = "\U0001f468\u200d\U0001f469\u200d\U0001f467";
    const std::string combined = "e\u0301\u0323";
    EXPECT_EQ(firstCharacters(flags, 1), "\U0001f1e9\U0001f1ea");
    EXPECT_EQ(firstCharacters(flags, 2), flags);
    EXPECT_EQ(firstCharacters(family + "x", 1), family);
    EXPECT_EQ(firstCharacters(combined + "x", 1), combined);
    EXPECT_EQ(firstCharacters("\U0001f44d\U0001f3fd!", 1), "\U0001f44d\U0001f3fd"); // skin tone
    EXPECT_EQ(firstCharacters("\r\nx", 1), "\r\n");
    EXPECT_EQ(firstCharacters("\u1112\u1161\u11abx", 1), "\u1112\u1161\u11ab"); // one Hangul syllable
}

TEST(Text, TakesAtMostWhatIsThere) {
    EXPECT_EQ(firstCharacters("abc", 0), "");
    EXPECT_EQ(firstCharacters("abc", 2), "ab");
    EXPECT_EQ(firstCharacters("abc", 3), "abc");
    EXPECT_EQ(firstCharacters("abc", 99), "abc");
    EXPECT_EQ(firstCharacters("", 5), "");
}

TEST(Text, CountsAnOddByteAsOneCharacter) {
    EXPECT_EQ(firstCharacters("\xff\xfe"
                              "a",
                              2),
              "\xff\xfe");
    EXPECT_EQ(firstCharacters("a\xff\u0301", 2), "a\xff");
}

TEST(Text, MakesControlsAndBidirectionalOverridesVisible) {
    EXPECT_EQ(madeVisible("\x1b[2J"), "\\u{001B}[2J");
    EXPECT_EQ(madeVisible("a\nb\x7f"), "a\\u{000A}b\\u{007F}");
    EXPECT_EQ(madeVisible("\u009b"), "\\u{009B}"); // a control sequence introducer in one character
    EXPECT_EQ(madeVisible("x\u202efdp.exe"), "x\\u{202E}fdp.exe");
    EXPECT_EQ(madeVisible("\u2066\u200b\u2028\U000e0041"), "\\u{2066}\\u{200B}\\u{2028}\\u{E0041}");
    EXPECT_EQ(madeVisible("\xff"), "\\x{FF}");
    EXPECT_EQ(madeVisible(std::string_view("\0", 1)), "\\u{0000}");
}

TEST(Text, LeavesVisibleTextAlone) {
    const std::string text = "Gr\u00fc\u00dfe, \u4e2d\u6587 \U0001f600 \u0645\u0631\u062d\u0628\u0627 e\u0301";
    EXPECT_EQ(madeVisible(text), text);
}

TEST(ForDisplay, LeavesAloneWhatFits) {
    EXPECT_EQ(forDisplay(""), "");
    EXPECT_EQ(forDisplay("Gr\u00fc\u00dfe"), "Gr\u00fc\u00dfe");
    const std::string whole(maxShownColumns, 'x');
    EXPECT_EQ(forDisplay(whole), whole);
    EXPECT_EQ(forDisplay("abc", 0), "");
}

TEST(ForDisplay, MakesEverythingVisible) {
    EXPECT_EQ(forDisplay("x\u202efdp.exe\n\xff"), "x\\u{202E}fdp.exe\\u{000A}\\x{FF}");
}

TEST(ForDisplay, PutsAnEllipsisInPlaceOfTheMiddle) {
    EXPECT_EQ(forDisplay("0123456789abcdef", 9), "012345…ef");
    EXPECT_EQ(forDisplay("\u4e2d\u4e2d\u4e2d\u4e2d\u4e2d\u4e2d", 9), "\u4e2d\u4e2d\u4e2d…\u4e2d") << "two columns each";
    const std::string shortened = forDisplay("invoice.pdf" + std::string(1000, ' ') + ".exe");
    EXPECT_TRUE(shortened.starts_with("invoice.pdf ")) << shortened;
    EXPECT_TRUE(shortened.ends_with(" .exe")) << "the end of a name says what it is: " << shortened;
    EXPECT_EQ(columnsOf(shortened), maxShownColumns);
}

TEST(ForDisplay, IsNeverLongerThanAsked) {
    constexpr std::size_t size = std::size_t{15} << 20;
    std::string mixed;
    while (mixed.size() < 5000) {
        mixed += "a\u202e\u4e2d\xff\U0001f600e\u0301\n";
    }
    std::string overrides;
    while (overrides.size() < size) {
        overrides += "\u202e";
    }
    for (const std::string& text : {mixed, overrides, std::string(size, '\x80'), std::string(size, 'x')}) {
        for (const std::size_t columns :
             {std::size_t{1}, std::size_t{2}, std::size_t{7}, maxShownColumns, maxLineColumns}) {
            const std::string shown = forDisplay(text, columns);
            EXPECT_LE(columnsOf(shown), columns);
            EXPECT_LE(shown.size(), columns * 4);
            EXPECT_TRUE(isUtf8(shown));
            EXPECT_EQ(forDisplay(shown, columns), shown) << "once is enough";
        }
    }
}

TEST(ForDisplay, CountsAMarkThatTakesNoColumnOfItsOwn) {
    std::string tower = "a";
    while (tower.size() < 10000) {
        tower += "\u0301";
    }
    EXPECT_LE(forDisplay(tower).size(), maxShownColumns * 4);
}

TEST(LookOf, IsTheSameForNamesThatLookAlike) {
    const std::string look = lookOf("Pixel 8");
    for (const char* name : {"pixel 8", " Pixel 8\t", "Pixel  8", "Pixel\u00a08", "PIXEL\u30008", "Pi\u200bxel 8",
                             "Pi\u00adxel 8", "\uff30ixel \uff18", "P\ufe0fixel 8", "\u2066Pixel 8\u2069"}) {
        EXPECT_EQ(lookOf(name), look) << name;
    }
    EXPECT_EQ(lookOf("stra\u00dfe"), lookOf("STRASSE"));
    EXPECT_EQ(lookOf("e\u0301"), lookOf("\u00c9"));
    for (const char* name : {"Pixel 8a", "Pixel 9", "Pixel8", ""}) {
        EXPECT_NE(lookOf(name), look) << name;
    }
    EXPECT_EQ(lookOf(" \u200b "), "");
    EXPECT_EQ(lookOf("\xff"), lookOf("\ufffd"));
}

TEST(Text, TakesTheLastPathComponent) {
    EXPECT_EQ(lastPathComponent("../../etc/passwd"), "passwd");
    EXPECT_EQ(lastPathComponent("a/b"), "b");
    EXPECT_EQ(lastPathComponent("a/b///"), "b");
    EXPECT_EQ(lastPathComponent("//b"), "b");
    EXPECT_EQ(lastPathComponent("b"), "b");
    EXPECT_EQ(lastPathComponent("/"), "/");
    EXPECT_EQ(lastPathComponent("///"), "/");
    EXPECT_EQ(lastPathComponent(""), "");
    EXPECT_EQ(lastPathComponent("a/.."), "..");
    EXPECT_EQ(lastPathComponent("a\\b"), "a\\b");
}

TEST(Text, SplitsANameAtItsExtension) {
    struct Case {
        const char* name;
        const char* stem;
        const char* extension;
    };
    for (const Case& example :
         {Case{"photo.jpg", "photo", "jpg"}, Case{"a.tar.gz", "a.tar", "gz"}, Case{"README", "README", ""},
          Case{".bashrc", ".bashrc", ""}, Case{".config.json", ".config", "json"}, Case{"ends.", "ends.", ""},
          Case{"", "", ""}, Case{".", ".", ""}, Case{"x.\u00e4", "x", "\u00e4"}}) {
        EXPECT_EQ(withoutPathExtension(example.name), example.stem) << example.name;
        EXPECT_EQ(pathExtension(example.name), example.extension) << example.name;
    }
}

TEST(FirstCharactersWithin, AreAsManyWholeOnesAsFit) {
    EXPECT_EQ(firstCharactersWithin("abc", 3), "abc");
    EXPECT_EQ(firstCharactersWithin("abc", 2), "ab");
    EXPECT_EQ(firstCharactersWithin("abc", 0), "");
    EXPECT_EQ(firstCharactersWithin("", 5), "");
    EXPECT_EQ(firstCharactersWithin("a\u00e4\u00e4", 4), "a\u00e4") << "not half a letter";
    EXPECT_EQ(firstCharactersWithin("ae\u0301", 3), "a") << "not a letter without its accent";
    EXPECT_EQ(firstCharactersWithin("ae\u0301", 4), "ae\u0301");
    const std::string family = "\U0001F468\u200D\U0001F469\u200D\U0001F467"; // one character, of five code points
    EXPECT_EQ(firstCharactersWithin("x" + family + "y", family.size()), "x");
    EXPECT_EQ(firstCharactersWithin("x" + family + "y", family.size() + 1), "x" + family);
}

TEST(FirstCharactersWithin, AreCutBetweenCodePointsIfTheFirstAloneIsTooLong) {
    EXPECT_EQ(firstCharactersWithin("e\u0301\u0301\u0301", 4), "e\u0301");
    EXPECT_EQ(firstCharactersWithin("\U0001F468", 3), "");
}

} // namespace
} // namespace orlinth
