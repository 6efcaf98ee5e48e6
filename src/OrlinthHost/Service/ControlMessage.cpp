#include "OrlinthHost/Service/ControlMessage.h"

#include "OrlinthHost/HostError.h"
#include "base/Json.h"
#include "base/Overloaded.h"
#include "base/Text.h"

#include <limits>
#include <utility>

namespace orlinth::host {

namespace {

constexpr const char* requestKey = "request";
constexpr const char* portRequest = "port";
constexpr const char* lendRequest = "lend_port";
constexpr const char* retryRequest = "outbox_retry";
constexpr const char* dropRequest = "outbox_drop";
constexpr const char* presenceRequest = "presence";
constexpr const char* cancelRequest = "cancel";
constexpr const char* statusRequest = "status";
constexpr const char* watchRequest = "watch";
constexpr const char* lastTextRequest = "last_text";
constexpr const char* forgetTextRequest = "forget_text";
constexpr const char* restartRequest = "restart";
constexpr const char* versionKey = "version";
constexpr const char* acceptRequest = "accept";
constexpr const char* declineRequest = "decline";
constexpr const char* pairRequest = "pair";
constexpr const char* settingsRequest = "settings";
constexpr const char* setRequest = "set";
constexpr const char* settingKey = "setting";
constexpr const char* valueKey = "value";
constexpr const char* transferKey = "transfer";
constexpr const char* interfaceKey = "interface";
constexpr const char* timeoutKey = "timeout_seconds";
constexpr const char* announceKey = "announce";
constexpr const char* publicKey = "listen_public";
constexpr const char* offerKey = "offer";
constexpr const char* portKey = "port";
constexpr const char* lentKey = "lent";
constexpr const char* batchKey = "batch";
constexpr const char* foundKey = "found";
constexpr const char* errorKey = "error";
constexpr const char* phonesKey = "phones";
constexpr const char* wakeKey = "can_wake";
constexpr const char* pubkeyKey = "peer_pubkey";
constexpr const char* stateKey = "state";
constexpr const char* seenKey = "seen_epoch_ms";
constexpr const char* downloadsKey = "downloads";
constexpr const char* sinceKey = "since_epoch_ms";
constexpr const char* fromKey = "from";
constexpr const char* receivedKey = "received_epoch_ms";
constexpr const char* textBytesKey = "text_bytes";
constexpr const char* entriesKey = "entries";

std::optional<std::uint16_t> portIn(const Json& object) {
    if (!object.is_object() || !object.contains(portKey)) {
        return std::nullopt;
    }
    const std::int64_t number = requireInt64(object, portKey);
    if (number < 1 || number > std::numeric_limits<std::uint16_t>::max()) {
        throw HostError("a port that is none");
    }
    return static_cast<std::uint16_t>(number);
}

bool isTrue(const Json& object, const char* key, bool otherwise) {
    const auto member = object.find(key);
    return member != object.end() && member->is_boolean() ? member->get<bool>() : otherwise;
}

std::optional<BatchId> optionalBatch(const Json& object) {
    std::optional<std::string> id = optionalString(object, batchKey);
    return id ? std::optional(BatchId(*std::move(id))) : std::nullopt;
}

PresenceState stateOf(const std::string& text) {
    using enum PresenceState;
    for (const PresenceState state : {here, asleep, away}) {
        if (text == textOf(state)) {
            return state;
        }
    }
    return unknown;
}

Json phonesOf(const PresenceReply& presence) {
    Json phones = Json::array();
    for (const PhonePresence& phone : presence.phones) {
        phones.push_back({{wakeKey, phone.canWake},
                          {pubkeyKey, phone.peerKey.text()},
                          {seenKey, phone.seen ? toNumber(*phone.seen) : 0},
                          {stateKey, textOf(phone.state)}});
    }
    return phones;
}

PresenceReply presenceIn(const Json& object) {
    PresenceReply presence;
    for (const Json& phone : requireArray(object, phonesKey)) {
        const std::int64_t seen = requireInt64(phone, seenKey);
        presence.phones.push_back({.peerKey = PeerKey(requireString(phone, pubkeyKey)),
                                   .state = stateOf(requireString(phone, stateKey)),
                                   .seen = seen > 0 ? std::optional(fromEpochMilliseconds(seen)) : std::nullopt,
                                   .canWake = isTrue(phone, wakeKey, false)});
    }
    return presence;
}

/// What is as it is without being said is not said.
void putPairing(Json& object, const PairingOptions& options) {
    const PairingOptions usual;
    object[requestKey] = pairRequest;
    if (options.interface != usual.interface) {
        object[interfaceKey] = options.interface;
    }
    if (options.timeout != usual.timeout) {
        object[timeoutKey] = std::chrono::ceil<std::chrono::seconds>(options.timeout).count();
    }
    if (options.isAnnounced != usual.isAnnounced) {
        object[announceKey] = options.isAnnounced;
    }
    if (options.isPublic != usual.isPublic) {
        object[publicKey] = options.isPublic;
    }
}

PairingOptions pairingOptionsIn(const Json& object) {
    PairingOptions options{.interface = optionalString(object, interfaceKey).value_or(""),
                           .isAnnounced = isTrue(object, announceKey, false),
                           .isPublic = isTrue(object, publicKey, false)};
    if (object.contains(timeoutKey)) {
        options.waitFor(requireInt64(object, timeoutKey));
    }
    return options;
}

void putPort(Json& object, const PortReply& reply) {
    object[portKey] = reply.port;
    if (!reply.downloads.empty() && reply.downloads.size() <= PortReply::maxFolderBytes && isUtf8(reply.downloads)) {
        object[downloadsKey] = reply.downloads;
    }
    if (reply.since) {
        object[sinceKey] = toNumber(*reply.since);
    }
}

PortReply portReplyIn(const Json& object, std::uint16_t port) {
    PortReply reply{.port = port, .downloads = optionalString(object, downloadsKey).value_or("")};
    if (object.contains(sinceKey)) {
        reply.since = fromEpochMilliseconds(requireInt64(object, sinceKey));
    }
    return reply;
}

TextReply textIn(const Json& object) {
    const std::int64_t bytes = requireInt64(object, textBytesKey);
    if (bytes < 0) {
        throw HostError("a text of less than nothing");
    }
    return {.from = requireString(object, fromKey),
            .received = fromEpochMilliseconds(requireInt64(object, receivedKey)),
            .bytes = static_cast<std::uint64_t>(bytes)};
}

Json jsonOf(const ControlRequest& request) {
    Json object;
    std::visit(Overloaded{[&object](const PortRequest&) { object[requestKey] = portRequest; },
                          [&object](const LendPortRequest& lend) {
                              object[requestKey] = lendRequest;
                              if (lend.port) {
                                  object[portKey] = *lend.port;
                              }
                          },
                          [&object](const OutboxRetryRequest& retry) {
                              object[requestKey] = retryRequest;
                              if (retry.batch) {
                                  object[batchKey] = *retry.batch;
                              }
                          },
                          [&object](const OutboxDropRequest& drop) {
                              object[requestKey] = dropRequest;
                              object[batchKey] = drop.batch;
                          },
                          [&object](const PresenceRequest&) { object[requestKey] = presenceRequest; },
                          [&object](const CancelRequest& cancel) {
                              object[requestKey] = cancelRequest;
                              object[transferKey] = cancel.transfer;
                          },
                          [&object](const AnswerOfferRequest& answer) {
                              object[requestKey] = answer.isAccepted ? acceptRequest : declineRequest;
                              object[offerKey] = answer.offer;
                          },
                          [&object](const PairRequest& pair) { putPairing(object, pair.options); },
                          [&object](const StatusRequest&) { object[requestKey] = statusRequest; },
                          [&object](const WatchRequest&) { object[requestKey] = watchRequest; },
                          [&object](const LastTextRequest&) { object[requestKey] = lastTextRequest; },
                          [&object](const ForgetTextRequest&) { object[requestKey] = forgetTextRequest; },
                          [&object](const RestartRequest&) { object[requestKey] = restartRequest; },
                          [&object](const SettingsRequest&) { object[requestKey] = settingsRequest; },
                          [&object](const SetRequest& set) {
                              object[requestKey] = setRequest;
                              object[settingKey] = set.setting;
                              object[valueKey] = toJson(set.value);
                          },
                          [&object](const PhoneRequest& phone) { object = encodePhoneRequest(phone); }},
               request);
    return object;
}

} // namespace

const char* textOf(PresenceState state) noexcept {
    switch (state) {
    case PresenceState::here:
        return "here";
    case PresenceState::asleep:
        return "asleep";
    case PresenceState::away:
        return "away";
    case PresenceState::unknown:
        break;
    }
    return "unknown";
}

std::string encodeControlRequest(const ControlRequest& request) {
    return compactJson(jsonOf(request));
}

std::string encodeControlRequestFrom(const std::string& version, const ControlRequest& request) {
    Json object = jsonOf(request);
    if (!version.empty()) {
        object[versionKey] = version;
    }
    return compactJson(object);
}

std::string encodeControlReply(const ControlReply& reply) {
    Json object;
    std::visit(Overloaded{[&object](const PortReply& port) { putPort(object, port); },
                          [&object](const NotLentReply& notLent) {
                              object[portKey] = notLent.port;
                              object[lentKey] = false;
                          },
                          [&object](const FoundReply& found) { object[foundKey] = found.isFound; },
                          [&object](const PresenceReply& presence) { object[phonesKey] = phonesOf(presence); },
                          [&object](const TextReply& text) {
                              object[fromKey] = text.from;
                              object[receivedKey] = toNumber(text.received);
                              object[textBytesKey] = text.bytes;
                          },
                          [&object](const HistoryReply& history) { object[entriesKey] = history.entries; },
                          [&object](const ErrorReply& error) { object[errorKey] = error.problem; }},
               reply);
    return compactJson(object);
}

ControlRequest decodeControlRequest(std::string_view line) {
    const Json object = parseJson(line);
    const std::optional<std::uint16_t> port = portIn(object); // must be one, whoever is asked for what
    const std::string what = requireString(object, requestKey);
    if (what == portRequest) {
        return PortRequest{};
    }
    if (what == lendRequest) {
        return LendPortRequest{port};
    }
    if (what == retryRequest) {
        return OutboxRetryRequest{optionalBatch(object)};
    }
    if (what == dropRequest) {
        if (std::optional<BatchId> batch = optionalBatch(object)) {
            return OutboxDropRequest{*std::move(batch)};
        }
    }
    if (what == presenceRequest) {
        return PresenceRequest{};
    }
    if (what == cancelRequest) {
        const std::int64_t transfer = requireInt64(object, transferKey);
        if (transfer > 0) {
            return CancelRequest{static_cast<std::uint64_t>(transfer)};
        }
    }
    if (what == acceptRequest || what == declineRequest) {
        const std::int64_t offer = requireInt64(object, offerKey);
        if (offer > 0) {
            return AnswerOfferRequest{.offer = static_cast<std::uint64_t>(offer), .isAccepted = what == acceptRequest};
        }
    }
    if (what == pairRequest) {
        return PairRequest{pairingOptionsIn(object)};
    }
    if (what == statusRequest) {
        return StatusRequest{};
    }
    if (what == watchRequest) {
        return WatchRequest{};
    }
    if (what == lastTextRequest) {
        return LastTextRequest{};
    }
    if (what == forgetTextRequest) {
        return ForgetTextRequest{};
    }
    if (what == restartRequest) {
        return RestartRequest{};
    }
    if (std::optional<PhoneRequest> phone = decodePhoneRequest(what, object)) {
        return *std::move(phone);
    }
    if (what == settingsRequest) {
        return SettingsRequest{};
    }
    if (what == setRequest) {
        const auto value = object.find(valueKey);
        const std::optional<SettingValue> known = value != object.end() ? settingValueFrom(*value) : std::nullopt;
        if (!known) {
            throw HostError("a setting needs a text, true, false, or a whole number");
        }
        return SetRequest{.setting = requireString(object, settingKey), .value = *known};
    }
    throw HostError("unknown request");
}

std::string decodeClientVersion(std::string_view line) {
    return optionalString(parseJson(line), versionKey).value_or("");
}

ControlReply decodeControlReply(std::string_view line) {
    const Json object = parseJson(line);
    if (std::optional<std::string> problem = optionalString(object, errorKey)) {
        return ErrorReply{*std::move(problem)};
    }
    if (const std::optional<std::uint16_t> port = portIn(object)) {
        if (isTrue(object, lentKey, true)) {
            return portReplyIn(object, *port);
        }
        return NotLentReply{*port};
    }
    if (object.contains(foundKey)) {
        return FoundReply{isTrue(object, foundKey, false)};
    }
    if (object.contains(phonesKey)) {
        return presenceIn(object);
    }
    if (object.contains(textBytesKey)) {
        return textIn(object);
    }
    if (object.contains(entriesKey)) {
        const std::int64_t entries = requireInt64(object, entriesKey);
        if (entries >= 0) {
            return HistoryReply{static_cast<std::size_t>(entries)};
        }
    }
    throw HostError("its answer makes no sense");
}

} // namespace orlinth::host
