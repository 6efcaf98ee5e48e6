#include "OrlinthHost/Service/PhoneMessages.h"

#include "OrlinthHost/HostError.h"
#include "base/Overloaded.h"

#include <cstdint>
#include <utility>

namespace orlinth::host {

namespace {

constexpr const char* requestKey = "request";
constexpr const char* phoneKey = "peer_pubkey";
constexpr const char* phonesKey = "peer_pubkeys";
constexpr const char* nameKey = "name";
constexpr const char* beforeKey = "before_epoch_ms";
constexpr const char* countKey = "count";

constexpr const char* renameRequest = "rename_phone";
constexpr const char* removeRequest = "remove_phone";
constexpr const char* wakeRequest = "wake_phone";
constexpr const char* sendTextRequest = "send_text";
constexpr const char* historyRequest = "history";
constexpr const char* clearHistoryRequest = "clear_history";

SendTextRequest sendTextIn(const Json& object) {
    SendTextRequest request;
    for (std::string& key : requireStrings(object, phonesKey)) {
        request.phones.emplace_back(std::move(key));
    }
    return request;
}

HistoryRequest historyIn(const Json& object) {
    const std::int64_t before = requireInt64(object, beforeKey);
    const std::int64_t count = requireInt64(object, countKey);
    if (before < 0) {
        throw HostError("a time that is none");
    }
    if (count < 1 || std::cmp_greater(count, HistoryRequest::maxCount)) {
        throw HostError("1 to " + std::to_string(HistoryRequest::maxCount) + " entries can be asked for");
    }
    return {.before = before > 0 ? std::optional(fromEpochMilliseconds(before)) : std::nullopt,
            .count = static_cast<std::size_t>(count)};
}

} // namespace

Json encodePhoneRequest(const PhoneRequest& request) {
    return std::visit(
        Overloaded{[](const RenamePhoneRequest& rename) -> Json {
                       return {{requestKey, renameRequest}, {phoneKey, rename.phone.text()}, {nameKey, rename.name}};
                   },
                   [](const RemovePhoneRequest& remove) -> Json {
                       return {{requestKey, removeRequest}, {phoneKey, remove.phone.text()}};
                   },
                   [](const WakePhoneRequest& wake) -> Json {
                       return {{requestKey, wakeRequest}, {phoneKey, wake.phone.text()}};
                   },
                   [](const SendTextRequest& send) -> Json {
                       Json keys = Json::array();
                       for (const PeerKey& phone : send.phones) {
                           keys.push_back(phone.text());
                       }
                       return {{requestKey, sendTextRequest}, {phonesKey, std::move(keys)}};
                   },
                   [](const HistoryRequest& history) -> Json {
                       return {{requestKey, historyRequest},
                               {beforeKey, history.before ? toNumber(*history.before) : 0},
                               {countKey, history.count}};
                   },
                   [](const ClearHistoryRequest&) -> Json { return {{requestKey, clearHistoryRequest}}; }},
        request);
}

std::optional<PhoneRequest> decodePhoneRequest(const std::string& what, const Json& object) {
    const auto phone = [&object] { return PeerKey(requireString(object, phoneKey)); };
    if (what == renameRequest) {
        return RenamePhoneRequest{.phone = phone(), .name = requireString(object, nameKey)};
    }
    if (what == removeRequest) {
        return RemovePhoneRequest{phone()};
    }
    if (what == wakeRequest) {
        return WakePhoneRequest{phone()};
    }
    if (what == sendTextRequest) {
        return sendTextIn(object);
    }
    if (what == historyRequest) {
        return historyIn(object);
    }
    if (what == clearHistoryRequest) {
        return ClearHistoryRequest{};
    }
    return std::nullopt;
}

} // namespace orlinth::host
