#include "OrlinthHost/Service/ServiceNews.h"

#include "OrlinthHost/HostError.h"
#include "OrlinthHost/Service/ControlLine.h"
#include "OrlinthHost/Service/ControlMessage.h"
#include "base/Json.h"
#include "base/Overloaded.h"

#include <array>
#include <limits>
#include <optional>
#include <utility>

namespace orlinth::host {

namespace {

constexpr const char* eventKey = "event";
constexpr const char* stateKey = "state";
constexpr const char* portKey = "port";
constexpr const char* downloadsKey = "downloads";
constexpr const char* messageKey = "message";
constexpr const char* pubkeyKey = "peer_pubkey";
constexpr const char* phoneKey = "phone";
constexpr const char* nameKey = "name";
constexpr const char* seenKey = "seen_epoch_ms";
constexpr const char* wakeKey = "can_wake";
constexpr const char* pairedKey = "paired_at_epoch_ms";
constexpr const char* addressKey = "address";
constexpr const char* transferKey = "transfer";
constexpr const char* directionKey = "direction";
constexpr const char* batchKey = "batch";
constexpr const char* doneKey = "bytes_done";
constexpr const char* totalKey = "total_bytes";
constexpr const char* rateKey = "bytes_per_second";
constexpr const char* pathKey = "path";
constexpr const char* createdKey = "created_at_epoch_ms";
constexpr const char* filesKey = "files";
constexpr const char* filesDoneKey = "files_done";
constexpr const char* valueKey = "value";
constexpr const char* fixedKey = "fixed_by";
constexpr const char* nextKey = "next_attempt_epoch_ms";

constexpr const char* offerKey = "offer";
constexpr const char* sizeKey = "size";
constexpr const char* expiresKey = "expires_epoch_ms";

constexpr const char* serviceEvent = "service";
constexpr const char* phoneEvent = "phone";
constexpr const char* transferEvent = "transfer";
constexpr const char* batchEvent = "batch";
constexpr const char* offerEvent = "offer";
constexpr const char* offerGoneEvent = "offer_gone";
constexpr const char* transferGoneEvent = "transfer_gone";
constexpr const char* batchGoneEvent = "batch_gone";
constexpr const char* phoneGoneEvent = "phone_gone";
constexpr const char* historyEvent = "history_added";
constexpr const char* settingEvent = "setting";
constexpr const char* settingGoneEvent = "setting_gone";
constexpr const char* currentEvent = "current";

void addText(Json& object, const char* key, const std::string& text) {
    if (!text.empty()) {
        object[key] = text;
    }
}

Json fieldsOf(const ServiceView& service) {
    Json object{{eventKey, serviceEvent},
                {stateKey, textOf(service.state)},
                {portKey, service.port},
                {downloadsKey, service.downloads.string()}};
    addText(object, nameKey, service.name);
    addText(object, messageKey, service.problem);
    return object;
}

Json fieldsOf(const PhoneView& phone) {
    return {{eventKey, phoneEvent},
            {pubkeyKey, phone.presence.peerKey.text()},
            {nameKey, phone.name},
            {stateKey, textOf(phone.presence.state)},
            {seenKey, phone.presence.seen ? toNumber(*phone.presence.seen) : 0},
            {wakeKey, phone.presence.canWake},
            {pairedKey, toNumber(phone.pairedAt)},
            {addressKey, phone.address}};
}

Json fieldsOf(const TransferView& transfer) {
    Json object{{eventKey, transferEvent},
                {transferKey, static_cast<std::uint64_t>(transfer.number)},
                {directionKey, textOf(transfer.direction)},
                {pubkeyKey, transfer.peerKey.text()},
                {phoneKey, transfer.phone},
                {nameKey, transfer.name},
                {stateKey, textOf(transfer.state)},
                {doneKey, transfer.bytes.done},
                {totalKey, transfer.bytes.total},
                {rateKey, transfer.bytesPerSecond}};
    addText(object, batchKey, transfer.batch.text());
    addText(object, messageKey, transfer.problem);
    addText(object, pathKey, transfer.path.string());
    return object;
}

Json fieldsOf(const OutboxView& batch) {
    Json object{
        {eventKey, batchEvent},          {batchKey, batch.batch.text()},          {pubkeyKey, batch.peerKey.text()},
        {phoneKey, batch.phone},         {createdKey, toNumber(batch.createdAt)}, {filesKey, batch.files},
        {filesDoneKey, batch.filesDone}, {stateKey, textOf(batch.state)}};
    if (batch.nextAttempt) {
        object[nextKey] = toNumber(*batch.nextAttempt);
    }
    addText(object, messageKey, batch.problem);
    return object;
}

Json fieldsOf(const OfferView& offer) {
    Json object{{eventKey, offerEvent},
                {offerKey, static_cast<std::uint64_t>(offer.number)},
                {pubkeyKey, offer.peerKey.text()},
                {phoneKey, offer.phone},
                {nameKey, offer.name},
                {sizeKey, offer.size}};
    if (offer.expires) {
        object[expiresKey] = toNumber(*offer.expires);
    }
    return object;
}

Json fieldsOf(const HistoryLine& line) {
    Json object = line.entry ? parseJson(History::encode(*line.entry)) : Json::object();
    object[eventKey] = historyEvent;
    return object;
}

Json fieldsOf(const SettingView& setting) {
    Json object{{eventKey, settingEvent}, {nameKey, setting.name}, {valueKey, toJson(setting.value)}};
    addText(object, fixedKey, setting.fixedBy);
    return object;
}

std::string textIn(const Json& object, const char* key) {
    return optionalString(object, key).value_or("");
}

/// A number of this object that is none below zero.
std::uint64_t countIn(const Json& object, const char* key) {
    const std::int64_t number = requireInt64(object, key);
    if (number < 0) {
        throw HostError(std::string("\"") + key + "\" is below zero");
    }
    return static_cast<std::uint64_t>(number);
}

std::optional<EpochMilliseconds> momentIn(const Json& object, const char* key) {
    const std::int64_t number = object.contains(key) ? requireInt64(object, key) : 0;
    return number > 0 ? std::optional(fromEpochMilliseconds(number)) : std::nullopt;
}

/// The one of these that is called so.
template <typename State, std::size_t count>
State stateIn(const Json& object, const char* key, const std::array<State, count>& states) {
    const std::string text = requireString(object, key);
    for (const State state : states) {
        if (text == textOf(state)) {
            return state;
        }
    }
    throw HostError(std::string("\"") + key + "\" is unknown");
}

ServiceView serviceIn(const Json& object) {
    using enum ServiceView::State;
    const std::uint64_t port = countIn(object, portKey);
    if (port > std::numeric_limits<std::uint16_t>::max()) {
        throw HostError("a port that is none");
    }
    return {.state = stateIn(object, stateKey, std::array{starting, listening, lent, notListening, stopping}),
            .port = static_cast<std::uint16_t>(port),
            .problem = textIn(object, messageKey),
            .name = textIn(object, nameKey),
            .downloads = requireString(object, downloadsKey)};
}

PhoneView phoneIn(const Json& object) {
    using enum PresenceState;
    const auto wake = object.find(wakeKey);
    return {.name = requireString(object, nameKey),
            .presence = {.peerKey = PeerKey(requireString(object, pubkeyKey)),
                         .state = stateIn(object, stateKey, std::array{here, asleep, away, unknown}),
                         .seen = momentIn(object, seenKey),
                         .canWake = wake != object.end() && wake->is_boolean() && wake->get<bool>()},
            .pairedAt = fromEpochMilliseconds(requireInt64(object, pairedKey)),
            .address = requireString(object, addressKey)};
}

TransferView transferIn(const Json& object) {
    using enum TransferView::State;
    using enum TransferView::Direction;
    return {.number = TransferNumber{countIn(object, transferKey)},
            .direction = stateIn(object, directionKey, std::array{in, out}),
            .peerKey = PeerKey(requireString(object, pubkeyKey)),
            .phone = requireString(object, phoneKey),
            .name = requireString(object, nameKey),
            .batch = BatchId(textIn(object, batchKey)),
            .state = stateIn(object, stateKey, std::array{active, finishing, done, failed, cancelled}),
            .bytes = {.done = requireInt64(object, doneKey), .total = requireInt64(object, totalKey)},
            .bytesPerSecond = requireInt64(object, rateKey),
            .problem = textIn(object, messageKey),
            .path = textIn(object, pathKey)};
}

OfferView offerIn(const Json& object) {
    return {.number = OfferNumber{countIn(object, offerKey)},
            .peerKey = PeerKey(requireString(object, pubkeyKey)),
            .phone = requireString(object, phoneKey),
            .name = requireString(object, nameKey),
            .size = requireInt64(object, sizeKey),
            .expires = momentIn(object, expiresKey)};
}

SettingView settingIn(const Json& object) {
    const auto value = object.find(valueKey);
    const std::optional<SettingValue> known = value != object.end() ? settingValueFrom(*value) : std::nullopt;
    if (!known) {
        throw HostError("a setting without a value");
    }
    return {.name = requireString(object, nameKey), .value = *known, .fixedBy = textIn(object, fixedKey)};
}

OutboxView batchIn(const Json& object) {
    using enum OutboxView::State;
    return {.batch = BatchId(requireString(object, batchKey)),
            .peerKey = PeerKey(requireString(object, pubkeyKey)),
            .phone = requireString(object, phoneKey),
            .createdAt = fromEpochMilliseconds(requireInt64(object, createdKey)),
            .files = countIn(object, filesKey),
            .filesDone = countIn(object, filesDoneKey),
            .state = stateIn(object, stateKey, std::array{waiting, sending, paused, failed}),
            .nextAttempt = momentIn(object, nextKey),
            .problem = textIn(object, messageKey)};
}

} // namespace

const char* textOf(ServiceView::State state) noexcept {
    switch (state) {
    case ServiceView::State::starting:
        return "starting";
    case ServiceView::State::listening:
        return "listening";
    case ServiceView::State::lent:
        return "lent";
    case ServiceView::State::notListening:
        return "not-listening";
    case ServiceView::State::stopping:
        break;
    }
    return "stopping";
}

const char* textOf(TransferView::State state) noexcept {
    switch (state) {
    case TransferView::State::active:
        return "active";
    case TransferView::State::finishing:
        return "finishing";
    case TransferView::State::done:
        return "done";
    case TransferView::State::failed:
        return "failed";
    case TransferView::State::cancelled:
        break;
    }
    return "cancelled";
}

const char* textOf(TransferView::Direction direction) noexcept {
    return direction == TransferView::Direction::in ? "in" : "out";
}

const char* textOf(OutboxView::State state) noexcept {
    switch (state) {
    case OutboxView::State::waiting:
        return "waiting";
    case OutboxView::State::sending:
        return "sending";
    case OutboxView::State::paused:
        return "paused";
    case OutboxView::State::failed:
        break;
    }
    return "failed";
}

std::string encodeServiceNews(const ServiceNews& news) {
    return compactJson(std::visit(
        Overloaded{
            [](const TransferGoneLine& gone) -> Json {
                return {{eventKey, transferGoneEvent}, {transferKey, static_cast<std::uint64_t>(gone.number)}};
            },
            [](const BatchGoneLine& gone) -> Json {
                return {{eventKey, batchGoneEvent}, {batchKey, gone.batch.text()}, {pubkeyKey, gone.peerKey.text()}};
            },
            [](const PhoneGoneLine& gone) -> Json {
                return {{eventKey, phoneGoneEvent}, {pubkeyKey, gone.peerKey.text()}};
            },
            [](const OfferGoneLine& gone) -> Json {
                return {{eventKey, offerGoneEvent}, {offerKey, static_cast<std::uint64_t>(gone.number)}};
            },
            [](const SettingGoneLine& gone) -> Json { return {{eventKey, settingGoneEvent}, {nameKey, gone.name}}; },
            [](const CurrentLine&) -> Json { return {{eventKey, currentEvent}}; },
            [](const auto& view) -> Json { return fieldsOf(view); }},
        news));
}

ServiceNews decodeServiceNews(std::string_view line) {
    const Json object = parseJson(line);
    throwIfRefused(object);
    const std::string event = requireString(object, eventKey);
    if (event == serviceEvent) {
        return serviceIn(object);
    }
    if (event == phoneEvent) {
        return phoneIn(object);
    }
    if (event == transferEvent) {
        return transferIn(object);
    }
    if (event == batchEvent) {
        return batchIn(object);
    }
    if (event == offerEvent) {
        return offerIn(object);
    }
    if (event == offerGoneEvent) {
        return OfferGoneLine{OfferNumber{countIn(object, offerKey)}};
    }
    if (event == transferGoneEvent) {
        return TransferGoneLine{TransferNumber{countIn(object, transferKey)}};
    }
    if (event == batchGoneEvent) {
        return BatchGoneLine{.batch = BatchId(requireString(object, batchKey)),
                             .peerKey = PeerKey(requireString(object, pubkeyKey))};
    }
    if (event == phoneGoneEvent) {
        return PhoneGoneLine{PeerKey(requireString(object, pubkeyKey))};
    }
    if (event == historyEvent) {
        std::optional<HistoryEntry> entry = History::decode(line);
        return HistoryLine{entry ? History::decode(History::encode(*entry))
                                 : std::nullopt}; // with texts as long as ours
    }
    if (event == settingEvent) {
        return settingIn(object);
    }
    if (event == settingGoneEvent) {
        return SettingGoneLine{requireString(object, nameKey)};
    }
    if (event == currentEvent) {
        return CurrentLine{};
    }
    throw HostError("unknown event");
}

} // namespace orlinth::host
