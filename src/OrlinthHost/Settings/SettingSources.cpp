#include "OrlinthHost/Settings/SettingSources.h"

namespace orlinth::host {

EffectiveSetting SettingSources::effective(const SettingName& name, const GivenSettings* inConfig) const {
    for (const GivenSettings* const given : {&flags, inConfig, &config}) {
        if (given == nullptr) {
            continue;
        }
        if (const auto found = given->find(name.id); found != given->end()) {
            return {.value = found->second.value, .fixedBy = found->second.where};
        }
    }
    if (const SettingValue* const value = file.find(name)) {
        return {.value = *value};
    }
    if (const SettingValue* const value = file.find({.id = name.id})) {
        return {.value = *value};
    }
    return {.value = usualSetting(ruleOf(name.id))};
}

std::string SettingSources::text(SettingId id) const {
    const EffectiveSetting setting = effective({.id = id});
    const auto* const text = std::get_if<std::string>(&setting.value);
    return text != nullptr ? *text : "";
}

} // namespace orlinth::host
