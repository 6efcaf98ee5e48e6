#include "OrlinthBus/BusError.h"

#include "OrlinthHost/HostError.h"
#include "OrlinthHost/Service/PhoneRequests.h"
#include "OrlinthHost/Service/ServicePairing.h"
#include "OrlinthHost/Settings/SettingRules.h"

namespace orlinth::bus {

namespace {

const char* nameOf(host::SettingError::Case which) noexcept {
    using Case = host::SettingError::Case;
    switch (which) {
    case Case::unknownSetting:
    case Case::invalidValue:
        return "InvalidArgument";
    case Case::noSuchPhone:
        return "NoSuchPhone";
    case Case::fixed:
        return "NotAllowed";
    case Case::notSaved:
        break;
    }
    return "Failed";
}

const char* nameOf(const std::exception& error) noexcept {
    if (const auto* const setting = dynamic_cast<const host::SettingError*>(&error)) {
        return nameOf(setting->which());
    }
    if (dynamic_cast<const host::NoSuchPhone*>(&error) != nullptr) {
        return "NoSuchPhone";
    }
    if (dynamic_cast<const host::PairingBusyError*>(&error) != nullptr) {
        return "Busy";
    }
    return dynamic_cast<const BadArgument*>(&error) != nullptr ? "InvalidArgument" : "Failed";
}

} // namespace

BusError busErrorOf(const std::exception& error) {
    BusError answer{.name = nameOf(error), .text = describe(error)};
    const auto* const ours = dynamic_cast<const host::HostError*>(&error);
    if (ours != nullptr && !ours->hint().empty()) {
        answer.text += "\n" + ours->hint();
    }
    return answer;
}

} // namespace orlinth::bus
