#include "orlinth/Program/Settings.h"

#include "fakes/MemoryFileSystem.h"
#include "orlinth/Commands/Command.h"
#include "platform/WholeFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orlinth::cli {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

std::vector<Setting> read(std::string_view text) {
    return readSettings(asBytes(text));
}

std::string errorOf(std::string_view text) {
    try {
        static_cast<void>(read(text));
    } catch (const SettingsError& error) {
        return error.description();
    }
    return "no error";
}

TEST(SettingsText, IsReadAsToml) {
    const std::vector<Setting> settings =
        read("json = true\n[serve]\nport = 1_000\nwait = 2.5\ndir = '/srv/a#b'\nlisten = ['a', \"b\"]\n"
             "[peers.add]\nname = 'x'\n");
    ASSERT_EQ(settings.size(), 6U);
    EXPECT_EQ(settings[0].fullName(), "json");
    EXPECT_EQ(settings[0].values.front(), (Setting::Value{Setting::Kind::truth, "true"}));
    EXPECT_EQ(settings[1].values.front(), (Setting::Value{Setting::Kind::number, "1000"}));
    EXPECT_EQ(settings[2].values.front(), (Setting::Value{Setting::Kind::number, "2.5"}));
    EXPECT_EQ(settings[3].values.front(), (Setting::Value{Setting::Kind::text, "/srv/a#b"}));
    EXPECT_TRUE(settings[4].isList);
    EXPECT_THAT(settings[4].values, ElementsAre(Setting::Value{.text = "a"}, Setting::Value{.text = "b"}));
    EXPECT_EQ(settings[5].fullName(), "peers.add.name");
    EXPECT_EQ(settings[5].place.line, 8U);
    EXPECT_EQ(settings[5].place.column, 1U);
}

TEST(SettingsText, WithoutAValueIsEmpty) {
    EXPECT_TRUE(read("").empty());
    EXPECT_TRUE(read("# nothing\n[send]\n").empty());
}

TEST(SettingsText, ErrorsNameLineAndColumn) {
    EXPECT_THAT(errorOf("[send]\nwarm-timeout = fast\n"), StartsWith(", line 2, column "));
    EXPECT_THAT(errorOf("\n\n[send\n"), StartsWith(", line 3, column "));
    EXPECT_THAT(errorOf("[a]\n[a]\n"), StartsWith(", line 2, column "));
    EXPECT_THAT(errorOf("a = 1\na = 2\n"), StartsWith(", line 2, column "));
    EXPECT_THAT(errorOf("[a]\nb = 1979-05-27\n"), AllOf(StartsWith(", line 2, column 5: "), HasSubstr("'a.b'")));
    EXPECT_THAT(errorOf("a = \"\\u0000\"\n"), AllOf(StartsWith(", line 1, column 5: "), HasSubstr("null")));
    EXPECT_THAT(errorOf("a = '\xff'\n"), StartsWith(", line 1, column "));
}

/// The parser asserts that no table's name begins like this.
TEST(SettingsText, ThatTheParserDoesNotExpectIsAnErrorToo) {
    EXPECT_EQ(errorOf("[`end]"), ", line 1, column 1: this line is no TOML");
    EXPECT_EQ(errorOf("[a]\nb = 1\n[`end]\nb = 2\n[c]\n"), ", line 3, column 1: this line is no TOML");
}

/// The parser takes for certain that nobody asks it whether some of them are white space.
TEST(SettingsText, LettersBeyondAsciiAreNoWhiteSpace) {
    EXPECT_THAT(errorOf("[a]\nb = \xC9\x9E\n"), StartsWith(", line 2, column "));
    EXPECT_THAT(errorOf("\xC9\x9E = 1\n"), StartsWith(", line 1, column "));
    EXPECT_THAT(errorOf("a = 1'\xD0\x9E'\n"), StartsWith(", line 1, column "));
    EXPECT_THAT(errorOf("a = 1.'\xC9\x9E'\n"), StartsWith(", line 1, column "));
    const std::vector<Setting> settings = read("\"\xC9\x9E\" = \"\"\"a\\\n  \xC9\x9E\"\"\" # \xC9\x9E\n");
    ASSERT_EQ(settings.size(), 1U);
    EXPECT_EQ(settings[0].name, "\xC9\x9E");
    EXPECT_EQ(settings[0].values.front().text, "a\xC9\x9E");
}

TEST(SettingsText, IsBounded) {
    EXPECT_EQ(errorOf(std::string(maxSettingsBytes + 1, '\n')), ": larger than 64 KiB");
    EXPECT_EQ(errorOf(std::string(maxSettingsBytes, '\n')), "no error");
    EXPECT_THAT(errorOf("a.b.c.d.e.f = 1"), HasSubstr("too deep"));
}

/// Each of these lies about as deep as the size of the file allows.
TEST(SettingsText, NestedEndlesslyIsAnError) {
    constexpr std::size_t many = maxSettingsBytes / 4;
    std::string names = "a";
    std::string tables;
    std::string inner = "x = ";
    for (std::size_t i = 0; i < many; ++i) {
        names += ".a";
    }
    while (tables.size() < maxSettingsBytes / 2) {
        tables += "[" + names.substr(0, 2 * (tables.size() / 100) + 1) + "]\n";
    }
    for (std::size_t i = 0; i < many / 2; ++i) {
        inner += "{a.a = ";
    }
    const std::string squares = "x = " + std::string(many, '[');
    const std::string many_tables = "[" + names + "]\n";
    for (const std::string& text : {names + " = 1", many_tables, tables, "x = {" + names + " = 1}", inner, squares,
                                    squares + std::string(many, ']')}) {
        EXPECT_THAT(errorOf(text), StartsWith(", line ")) << text.substr(0, 20);
    }
}

TEST(SettingsFlags, OfServeAreThoseOfTheTable) {
    CLI::App program("test", "orlinth");
    const std::unique_ptr<Command> command = makeServeCommand(program);
    for (const host::SettingRule& rule : host::settingRules()) {
        const CLI::Option* const option =
            program.get_subcommand("serve")->get_option_no_throw("--" + std::string(rule.key));
        ASSERT_EQ(option != nullptr, rule.hasFlag()) << rule.name;
        if (rule.kind == host::SettingKind::size || rule.kind == host::SettingKind::choice) {
            EXPECT_EQ(rule.otherwise, option->get_default_str()) << "what --help shows";
        }
    }
    EXPECT_TRUE(settingsFromFlags(*program.get_subcommand("serve")).empty());
}

/// A program with two commands and the settings file in a home of its own.
class SettingsFile : public testing::Test {
protected:
    SettingsFile() {
        CLI::App* serve = program.add_subcommand("serve");
        serve->add_option("--dir", directory)->type_name("DIR");
        serve->add_option("--port", port);
        serve->add_option("--listen", places)->allow_extra_args(false);
        serve->add_flag("--json", json);
        serve->add_option("--what", what)->configurable(false);
        files.createDirectories("/home/ann/.config/orlinth", 0700);
    }
    void apply(std::string_view text) {
        platform::writeWholeFile(files, "/home/ann/.config/orlinth/config.toml", asBytes(text));
        sources = applySettings(program, files, directories);
    }
    std::string errorOf(std::string_view text) {
        try {
            apply(text);
        } catch (const SettingsError& error) {
            return error.description();
        }
        return "no error";
    }
    void parse(std::vector<std::string> arguments) {
        std::ranges::reverse(arguments);
        program.parse(arguments);
    }

    fakes::MemoryFileSystem files;
    const platform::UserDirectories directories{
        .home = "/home/ann", .data = "/home/ann/data", .config = "/home/ann/.config", .downloads = "/home/ann/d"};
    CLI::App program{"test", "orlinth"};
    host::SettingSources sources;
    std::string directory = "none";
    int port = 1;
    std::vector<std::string> places;
    bool json = false;
    std::string what;
};

TEST_F(SettingsFile, GivesDefaultsAndAFlagWins) {
    apply("[serve]\nport = 2\njson = true\nlisten = ['eth0', '192.168.1.7']\ndir = \"/srv/a#b\"\n");
    parse({"serve", "--port", "3"});
    EXPECT_EQ(port, 3);
    EXPECT_TRUE(json);
    EXPECT_THAT(places, ElementsAre("eth0", "192.168.1.7"));
    EXPECT_EQ(directory, "/srv/a#b");
}

TEST_F(SettingsFile, AListInAFlagReplacesThatOfTheFile) {
    apply("[serve]\nlisten = ['eth0', 'eth1']\n");
    parse({"serve", "--listen", "wlan0"});
    EXPECT_THAT(places, ElementsAre("wlan0"));
}

TEST_F(SettingsFile, OneValueInAListIsThatValue) {
    apply("[serve]\nport = [7]\nlisten = ['eth0']\n");
    EXPECT_EQ(port, 7);
    EXPECT_THAT(places, ElementsAre("eth0"));
}

TEST_F(SettingsFile, PathsBeginAtTheRootOrInTheHomeFolder) {
    apply("[serve]\ndir = '~/in'\n");
    EXPECT_EQ(directory, "/home/ann/in");
    apply("[serve]\ndir = '~'\n");
    EXPECT_EQ(directory, "/home/ann");
    for (const char* text : {"in", "./in", "~bob/in", ""}) {
        EXPECT_THAT(errorOf("[serve]\ndir = '" + std::string(text) + "'\n"),
                    HasSubstr("line 2, column 1: 'serve.dir' must be a path that begins with / or ~/"));
    }
}

TEST_F(SettingsFile, ErrorsNameTheFileThePlaceAndTheSetting) {
    constexpr const char* file = "settings file /home/ann/.config/orlinth/config.toml";
    EXPECT_EQ(errorOf("[serve]\n\n  bogus = 1\n"),
              std::string(file) + ", line 3, column 3: unknown setting 'serve.bogus'");
    EXPECT_EQ(errorOf("[serve]\nwhat = 'x'\n"), std::string(file) + ", line 2, column 1: unknown setting 'serve.what'");
    EXPECT_EQ(errorOf("x = 1\n"), std::string(file) + ", line 1, column 1: unknown setting 'x'");
    EXPECT_EQ(errorOf("[bogus]\nx = 1\n"), std::string(file) + ", line 2, column 1: there is no command 'bogus'");
    EXPECT_EQ(errorOf("[serve]\nport = [1, 2]\n"),
              std::string(file) + ", line 2, column 1: 'serve.port' takes exactly one value");
    EXPECT_THAT(errorOf("[serve]\nport = 'x'\n"), StartsWith(std::string(file) + ", line 2, column 1: 'serve.port': "));
    EXPECT_THAT(errorOf("[serve]\nlisten = ['a,b', 'c']\n"), HasSubstr("cannot be an element"));
    EXPECT_THAT(errorOf("[[serve]]\nport = 1\n"), StartsWith(std::string(file) + ", line 1, column "));
    EXPECT_EQ(errorOf(std::string(maxSettingsBytes + 1, '#')), std::string(file) + ": larger than 64 KiB");
    EXPECT_EQ(errorOf(""), "no error");
}

TEST_F(SettingsFile, HasTheDefaultPhoneOfAllCommandsInOnePlace) {
    apply("[send]\nto = ' Pixel 8 '\n");
    EXPECT_EQ(sources.text(host::SettingId::defaultPhone), "Pixel 8");
    EXPECT_THAT(errorOf("[send]\nto = ['a', 'b']\n"), HasSubstr("'send.to' must be one text"));
    EXPECT_THAT(errorOf("[send]\nto = ' '\n"), HasSubstr("'send.to' must be one text"));
    EXPECT_THAT(errorOf("[serve]\nto = 'Pixel 8'\n"), HasSubstr("is 'to' in [send]"));
}

TEST_F(SettingsFile, HasTheNameOfThisComputer) {
    apply("[id]\nname = \" Ann's laptop \"\n");
    EXPECT_EQ(sources.text(host::SettingId::computerName), "Ann's laptop");
    for (const std::string& name : {std::string(), std::string(256, 'x'), std::string("a\\nb")}) {
        EXPECT_THAT(errorOf("[id]\nname = \"" + name + "\"\n"), HasSubstr("line 2, column 1: 'id.name' must be "));
    }
}

TEST_F(SettingsFile, HasAFolderAndAnAnswerForSinglePhones) {
    apply("[phones.\"Pixel 8\"]\ndir = '~/Pixel'\naccept = \"always\"\n[phones.Tablet]\naccept = 'ask'\n");
    ASSERT_EQ(sources.phonesInConfig.size(), 2U);
    const host::PhoneInConfig& pixel = sources.phonesInConfig[0];
    EXPECT_EQ(pixel.selector, "Pixel 8");
    EXPECT_EQ(pixel.settings.at(host::SettingId::downloads).value, host::SettingValue("/home/ann/Pixel"));
    EXPECT_EQ(pixel.settings.at(host::SettingId::downloads).where, "config.toml, line 2");
    EXPECT_EQ(pixel.settings.at(host::SettingId::accept).value, host::SettingValue("always"));
    EXPECT_EQ(sources.phonesInConfig[1].selector, "Tablet");
    EXPECT_THAT(errorOf("[phones.x]\ndir = 'in'\n"),
                HasSubstr("line 2, column 1: 'phones.x.dir' must be a path that begins with / or ~/"));
    EXPECT_THAT(errorOf("[phones.x]\n\naccept = 'perhaps'\n"),
                HasSubstr("line 3, column 1: 'phones.x.accept' must be always, never or ask"));
    EXPECT_THAT(errorOf("[phones.x]\naccept = ['ask', 'ask']\n"), HasSubstr("must be always, never or ask"));
    for (const char* text : {"[phones.x]\nhistory = false\n", "[phones]\ndir = '/x'\n", "[phones.x.y]\ndir = '/x'\n"}) {
        EXPECT_THAT(errorOf(text), HasSubstr("line 2, column 1: unknown setting 'phones.")) << text;
    }
    EXPECT_THAT(errorOf("[phones.\"\"]\ndir = '/x'\n"), HasSubstr("the phone needs a name"));
}

TEST_F(SettingsFile, WhatItSaysOfServeIsKnownWithItsPlaceAndFlagsAreToo) {
    apply("[serve]\n\ndir = '~/in'\n");
    EXPECT_EQ(sources.config.at(host::SettingId::downloads).value, host::SettingValue("/home/ann/in"));
    EXPECT_EQ(sources.config.at(host::SettingId::downloads).where, "config.toml, line 3");
    CLI::App* const serve = program.get_subcommand("serve");
    bool leavesClipboard = false;
    serve->add_flag("--no-clipboard", leavesClipboard);
    parse({"serve", "--no-clipboard"});
    const host::GivenSettings flags = settingsFromFlags(*serve);
    ASSERT_EQ(flags.size(), 1U) << "the folder is not on the command line";
    EXPECT_EQ(flags.at(host::SettingId::clipboard).value, host::SettingValue(false));
    EXPECT_EQ(flags.at(host::SettingId::clipboard).where, "`--no-clipboard`");
}

TEST_F(SettingsFile, ThatIsNotThereSettlesNothing) {
    EXPECT_EQ(applySettings(program, files, directories).text(host::SettingId::defaultPhone), "");
    EXPECT_EQ(port, 1);
}

} // namespace
} // namespace orlinth::cli
