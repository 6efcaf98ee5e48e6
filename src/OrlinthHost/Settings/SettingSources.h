#pragma once

#include "OrlinthHost/Settings/SettingsFile.h"

#include <map>
#include <string>
#include <vector>

namespace orlinth::host {

/// What somebody has said of a setting, and where: "`--accept`", "config.toml, line 3".
struct GivenSetting {
    SettingValue value;
    std::string where;
};
using GivenSettings = std::map<SettingId, GivenSetting>;

/// A table [phones."…"] of config.toml.
struct PhoneInConfig {
    std::string selector; ///< as PeerSelection.h takes it
    std::string where;    ///< where the table is first used
    GivenSettings settings;
};

/// A setting as it holds.
struct EffectiveSetting {
    SettingValue value;
    std::string fixedBy = {}; ///< where it is set that the service cannot change it; "" if it can
};

/// Everything that has been said of the settings. A flag goes before config.toml, that before settings.json, and that
/// before what is usual; where both are said in the same place, what holds for one phone goes before what holds for
/// all.
struct SettingSources {
    GivenSettings flags = {};
    GivenSettings config = {};
    std::vector<PhoneInConfig> phonesInConfig = {};
    SettingsFile::Content file = {};

    /// Of this computer, or of one phone: `inConfig` is what config.toml says of that one, null if nothing.
    [[nodiscard]] EffectiveSetting effective(const SettingName& name, const GivenSettings* inConfig = nullptr) const;
    /// A text of this computer; "" if nobody has set it.
    [[nodiscard]] std::string text(SettingId id) const;
};

} // namespace orlinth::host
