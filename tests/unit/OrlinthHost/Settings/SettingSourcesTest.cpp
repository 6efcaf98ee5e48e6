#include "OrlinthHost/Settings/SettingSources.h"

#include <gtest/gtest.h>

namespace orlinth::host {
namespace {

const PeerKey phone("phone");
const SettingName ofAll{.id = SettingId::accept};
const SettingName ofPhone{.id = SettingId::accept, .peerKey = phone};

GivenSettings given(const char* value, const char* where) {
    return {{SettingId::accept, {.value = value, .where = where}}};
}

/// "ask", or "ask by `--accept`".
std::string held(const SettingSources& sources, const SettingName& name, const GivenSettings* inConfig = nullptr) {
    const EffectiveSetting setting = sources.effective(name, inConfig);
    const std::string by = setting.fixedBy.empty() ? "" : " by " + setting.fixedBy;
    return std::get<std::string>(setting.value) + by;
}

TEST(SettingSources, AFlagGoesBeforeConfigThatBeforeTheFileAndThatBeforeWhatIsUsual) {
    SettingSources sources;
    EXPECT_EQ("always", held(sources, ofAll));
    sources.file.set(ofAll, "never");
    EXPECT_EQ("never", held(sources, ofAll));
    sources.config = given("ask", "config.toml, line 3");
    EXPECT_EQ("ask by config.toml, line 3", held(sources, ofAll));
    sources.flags = given("always", "`--accept`");
    EXPECT_EQ("always by `--accept`", held(sources, ofAll));
}

TEST(SettingSources, WhatHoldsForAPhoneGoesBeforeWhatHoldsForAllInTheSamePlace) {
    SettingSources sources;
    sources.file.set(ofAll, "never");
    EXPECT_EQ("never", held(sources, ofPhone));
    sources.file.set(ofPhone, "ask");
    EXPECT_EQ("ask", held(sources, ofPhone));
    EXPECT_EQ("never", held(sources, ofAll));
    EXPECT_EQ("never", held(sources, {.id = SettingId::accept, .peerKey = PeerKey("another")}));
    sources.config = given("never", "config.toml, line 1");
    EXPECT_EQ("never by config.toml, line 1", held(sources, ofPhone)) << "the file may not soften it";
    const GivenSettings inConfig = given("always", "config.toml, line 5");
    EXPECT_EQ("always by config.toml, line 5", held(sources, ofPhone, &inConfig));
    sources.flags = given("never", "`--accept`");
    EXPECT_EQ("never by `--accept`", held(sources, ofPhone, &inConfig));
}

TEST(SettingSources, ATextThatNobodyHasSetIsEmpty) {
    SettingSources sources;
    EXPECT_EQ("", sources.text(SettingId::defaultPhone));
    sources.file.set({.id = SettingId::defaultPhone}, "Pixel 8");
    EXPECT_EQ("Pixel 8", sources.text(SettingId::defaultPhone));
}

} // namespace
} // namespace orlinth::host
