#pragma once

#include "OrlinthHost/Settings/SettingRules.h"

#include <string>

namespace orlinth::host {

/// A setting as faces show it.
struct SettingView {
    std::string name;
    SettingValue value;
    std::string fixedBy = {}; ///< where config.toml or a flag sets it, so that the service cannot change it; else ""

    friend bool operator==(const SettingView&, const SettingView&) = default;
};

} // namespace orlinth::host
