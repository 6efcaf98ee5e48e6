#include "OrlinthHost/Settings/SettingRules.h"

#include <gtest/gtest.h>

#include <limits>
#include <set>

namespace orlinth::host {
namespace {

std::string problemOf(SettingId id, const SettingValue& value) {
    try {
        static_cast<void>(checkedSetting(ruleOf(id), value, "/home/ann"));
    } catch (const SettingError& error) {
        EXPECT_EQ(SettingError::Case::invalidValue, error.which());
        return error.description();
    }
    return "";
}

SettingValue checked(SettingId id, const SettingValue& value) {
    return checkedSetting(ruleOf(id), value, "/home/ann");
}

TEST(SettingRules, HaveDifferentNamesAndKeys) {
    std::set<std::string> names;
    std::set<std::string> keys;
    for (const SettingRule& rule : settingRules()) {
        EXPECT_TRUE(names.insert(rule.name).second) << rule.name;
        EXPECT_TRUE(keys.insert(rule.fullKey()).second) << rule.fullKey();
        EXPECT_EQ(&rule, findSettingRule(rule.name));
        EXPECT_EQ(&rule, findSettingRule(rule.table, rule.key));
        EXPECT_EQ(&rule, &ruleOf(rule.id));
    }
    EXPECT_EQ(nullptr, findSettingRule("port"));
    EXPECT_EQ(nullptr, findSettingRule("serve", "clipboard")) << "config.toml says the opposite";
}

TEST(SettingRules, WhatIsUsualPassesTheirOwnChecks) {
    for (const SettingRule& rule : settingRules()) {
        const SettingValue usual = usualSetting(rule);
        if (usual != SettingValue("")) {
            EXPECT_EQ(usual, checkedSetting(rule, usual, "/home/ann")) << rule.name;
        }
    }
    EXPECT_EQ(SettingValue(true), usualSetting(ruleOf(SettingId::clipboard)));
    EXPECT_EQ(SettingValue(std::int64_t{512} << 20), usualSetting(ruleOf(SettingId::keepFree)));
}

TEST(SettingRules, TakeValuesOfTheirKind) {
    EXPECT_EQ(SettingValue("Ann's laptop"), checked(SettingId::computerName, " Ann's laptop "));
    EXPECT_EQ(SettingValue("/home/ann/in"), checked(SettingId::downloads, "~/in"));
    EXPECT_EQ(SettingValue("/home/ann"), checked(SettingId::downloads, "~"));
    for (const char* path : {"/home/ann/in/", "~/in/", "~//in//"}) {
        EXPECT_EQ(SettingValue("/home/ann/in"), checked(SettingId::downloads, path)) << path;
    }
    EXPECT_EQ(SettingValue("/home/ann"), checked(SettingId::downloads, "~/"));
    EXPECT_EQ(SettingValue("/"), checked(SettingId::downloads, "//"));
    EXPECT_EQ(SettingValue("/srv/in "), checked(SettingId::downloads, "/srv/in ")) << "a folder may be called so";
    EXPECT_EQ(SettingValue(std::int64_t{1536}), checked(SettingId::maxFile, "1.5K"));
    EXPECT_EQ(SettingValue(std::int64_t{0}), checked(SettingId::maxFile, std::int64_t{0}));
    EXPECT_EQ(SettingValue(false), checked(SettingId::history, false));
    for (const char* accept : {"always", "never", "ask"}) {
        EXPECT_EQ(SettingValue(accept), checked(SettingId::accept, accept));
    }
}

TEST(SettingRules, RefuseOthersAndSayWhatIsAskedFor) {
    EXPECT_EQ("must be one text, not empty", problemOf(SettingId::computerName, " "));
    EXPECT_EQ("must be one text, not empty", problemOf(SettingId::computerName, true));
    EXPECT_EQ("must be at most 255 bytes, without control characters",
              problemOf(SettingId::computerName, std::string(256, 'x')));
    EXPECT_EQ("must be at most 255 bytes, without control characters", problemOf(SettingId::defaultPhone, "a\nb"));
    EXPECT_EQ("must be in UTF-8", problemOf(SettingId::downloads, "/\xff"));
    EXPECT_EQ("may not contain a null character", problemOf(SettingId::downloads, std::string("/a\0b", 4)));
    for (const char* path : {"in", "./in", "~bob/in"}) {
        EXPECT_EQ("must be a path that begins with / or ~/", problemOf(SettingId::downloads, path));
    }
    EXPECT_EQ("must be always, never or ask", problemOf(SettingId::accept, "Always"));
    EXPECT_EQ("must be always, never or ask", problemOf(SettingId::accept, true));
    EXPECT_EQ("must be true or false", problemOf(SettingId::history, "true"));
    EXPECT_EQ("must be true or false", problemOf(SettingId::history, std::int64_t{1}));
    EXPECT_EQ("must be a size, such as 512M or 1.5G", problemOf(SettingId::keepFree, std::int64_t{-1}));
    EXPECT_EQ("must be a size, such as 512M or 1.5G", problemOf(SettingId::keepFree, "much"));
}

TEST(SettingRules, NamesAreOfThisComputerOrOfAPhone) {
    const PeerKey key("hSDwCYkwp1R0i33ctD73Wg2/Og0mOBr066SpjqqbTmo=");
    const SettingName ofPhone{.id = SettingId::accept, .peerKey = key};
    EXPECT_EQ("phones." + key.text() + ".accept", ofPhone.text());
    EXPECT_EQ(ofPhone, SettingName::parse(ofPhone.text()));
    EXPECT_EQ(SettingName{.id = SettingId::maxFile}, SettingName::parse("max-file"));
    for (const char* text : {"", "phones", "phones.", "phones..accept", "phones.key", "phones.key.history", "accept.x",
                             "serve.accept", "phones.accept"}) {
        EXPECT_EQ(std::nullopt, SettingName::parse(text)) << text;
    }
}

TEST(SettingRules, ValuesAreTheSameAfterJson) {
    for (const SettingValue& value :
         {SettingValue("ask"), SettingValue(true), SettingValue(std::numeric_limits<std::int64_t>::max())}) {
        EXPECT_EQ(value, settingValueFrom(parseJson(compactJson(toJson(value)))));
    }
    for (const char* none : {"null", "1.5", "[]", "{}"}) {
        EXPECT_EQ(std::nullopt, settingValueFrom(parseJson(none))) << none;
    }
}

} // namespace
} // namespace orlinth::host
