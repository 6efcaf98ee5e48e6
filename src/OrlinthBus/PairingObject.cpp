#include "OrlinthBus/PairingObject.h"

#include "OrlinthHost/HostError.h"
#include "OrlinthHost/Service/PairingMessage.h"
#include "base/Text.h"

#include <algorithm>

namespace orlinth::bus {

namespace {

constexpr const char* interfaceName = "com.tarvinex.orlinth1.Pairing";

/// The option of this name, which must be of this type; nothing if it is not given.
template <typename Value>
std::optional<Value> optionIn(const BusOptions& options, const char* name) {
    const auto option = options.find(name);
    if (option == options.end()) {
        return std::nullopt;
    }
    if (const auto* const value = option->second ? std::get_if<Value>(&*option->second) : nullptr) {
        return *value;
    }
    throw host::HostError(std::string("\"") + name + "\" is of another type");
}

} // namespace

BusInterface pairingInterface() {
    return {.name = interfaceName,
            .methods = {{.name = "GetCode", .out = {{"payload", "h"}}},
                        {.name = "Confirm", .in = {{"isSame", "b"}}},
                        {.name = "Cancel"}},
            .properties = {{"State", "s"},
                           {"Digits", "s"},
                           {"ConfirmationCode", "s"},
                           {"PhoneName", "s"},
                           {"Expires", "t"},
                           {"Problem", "(ss)"}}};
}

void addPairing(BusObjects& objects, const std::optional<host::PairingView>& pairing) {
    if (!pairing) {
        return;
    }
    const std::int64_t expires = pairing->expires ? toNumber(*pairing->expires) : 0;
    objects[pairingPath] = {.interface = interfaceName,
                            .properties = {{"State", std::string(host::textOf(pairing->state))},
                                           {"Digits", pairing->digits},
                                           {"ConfirmationCode", pairing->confirmationCode},
                                           {"PhoneName", forDisplay(pairing->phone)},
                                           {"Expires", static_cast<std::uint64_t>(std::max<std::int64_t>(0, expires))},
                                           {"Problem", ProblemText{.text = forDisplay(pairing->problem),
                                                                   .hint = forDisplay(pairing->hint)}}}};
}

host::PairingOptions pairingOptionsIn(const BusOptions& options) {
    const auto seconds = optionIn<std::int64_t>(options, "timeout");
    host::PairingOptions chosen{.interface = optionIn<std::string>(options, "interface").value_or(""),
                                .isAnnounced = optionIn<bool>(options, "announce").value_or(false),
                                .isPublic = optionIn<bool>(options, "listen-public").value_or(false)};
    if (seconds) {
        chosen.waitFor(*seconds);
    }
    return chosen;
}

} // namespace orlinth::bus
