#include "OrlinthHost/Service/PairingMessage.h"

#include "OrlinthHost/HostError.h"
#include "OrlinthHost/Service/ControlLine.h"
#include "base/Json.h"

#include <array>

namespace orlinth::host {

namespace {

constexpr const char* pairingEventKey = "event";
constexpr const char* pairingEvent = "pairing";
constexpr const char* pairingStateKey = "state";
constexpr const char* digitsKey = "digits";
constexpr const char* confirmationKey = "confirmation_code";
constexpr const char* pairedPhoneKey = "phone";
constexpr const char* endKey = "expires_epoch_ms";
constexpr const char* failureKey = "message";
constexpr const char* hintKey = "hint";
constexpr const char* confirmKey = "confirm";

PairingView::State pairingStateOf(const std::string& text) {
    using enum PairingView::State;
    for (const PairingView::State state : std::array{waiting, confirming, done, failed}) {
        if (text == textOf(state)) {
            return state;
        }
    }
    throw HostError("the state of the pairing is unknown");
}

} // namespace

const char* textOf(PairingView::State state) noexcept {
    switch (state) {
    case PairingView::State::waiting:
        return "waiting";
    case PairingView::State::confirming:
        return "confirming";
    case PairingView::State::done:
        return "done";
    case PairingView::State::failed:
        break;
    }
    return "failed";
}

std::string encodePairing(const PairingView& pairing) {
    Json object{{pairingEventKey, pairingEvent}, {pairingStateKey, textOf(pairing.state)}};
    const auto add = [&object](const char* key, const std::string& text) {
        if (!text.empty()) {
            object[key] = text;
        }
    };
    add(digitsKey, pairing.digits);
    add(confirmationKey, pairing.confirmationCode);
    add(pairedPhoneKey, pairing.phone);
    add(failureKey, pairing.problem);
    add(hintKey, pairing.hint);
    if (pairing.expires) {
        object[endKey] = toNumber(*pairing.expires);
    }
    return compactJson(object);
}

PairingView decodePairing(std::string_view line) {
    const Json object = parseJson(line);
    throwIfRefused(object);
    if (requireString(object, pairingEventKey) != pairingEvent) {
        throw HostError("unknown event");
    }
    PairingView pairing{.state = pairingStateOf(requireString(object, pairingStateKey)),
                        .digits = optionalString(object, digitsKey).value_or(""),
                        .confirmationCode = optionalString(object, confirmationKey).value_or(""),
                        .phone = optionalString(object, pairedPhoneKey).value_or(""),
                        .problem = optionalString(object, failureKey).value_or(""),
                        .hint = optionalString(object, hintKey).value_or("")};
    if (object.contains(endKey)) {
        pairing.expires = fromEpochMilliseconds(requireInt64(object, endKey));
    }
    return pairing;
}

std::string encodeConfirmation(bool isSame) {
    return compactJson(Json{{confirmKey, isSame}});
}

bool decodeConfirmation(std::string_view line) {
    const Json object = parseJson(line);
    const auto confirm = object.is_object() ? object.find(confirmKey) : object.end();
    if (confirm == object.end() || !confirm->is_boolean()) {
        throw HostError("not an answer to a pairing");
    }
    return confirm->get<bool>();
}

} // namespace orlinth::host
