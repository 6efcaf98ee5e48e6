#pragma once

#include "base/Json.h"
#include "base/StrongText.h"
#include "base/Time.h"

#include <cstddef>
#include <optional>
#include <string>
#include <variant>
#include <vector>

/// The requests of ControlMessage.h about phones, texts and the history.
namespace orlinth::host {

/// `{"request":"rename_phone","name":"Tablet","peer_pubkey":"…"}`. Answered by FoundReply.
struct RenamePhoneRequest {
    PeerKey phone;
    std::string name;
    friend bool operator==(const RenamePhoneRequest&, const RenamePhoneRequest&) = default;
};

/// `{"request":"remove_phone","peer_pubkey":"…"}`. Answered by FoundReply; the phone is notified meanwhile.
struct RemovePhoneRequest {
    PeerKey phone;
    friend bool operator==(const RemovePhoneRequest&, const RemovePhoneRequest&) = default;
};

/// `{"request":"wake_phone","peer_pubkey":"…"}`: sends the wake push. Answered by FoundReply when that is accepted.
struct WakePhoneRequest {
    PeerKey phone;
    friend bool operator==(const WakePhoneRequest&, const WakePhoneRequest&) = default;
};

/// `{"request":"send_text","peer_pubkeys":["…"]}`, and behind its line end the text itself (UnixSockets::sendSecret).
/// Without a key: to the default phone. Answered by FoundReply when the phones have had it.
struct SendTextRequest {
    std::vector<PeerKey> phones = {};
    friend bool operator==(const SendTextRequest&, const SendTextRequest&) = default;
};

/// `{"request":"history","before_epoch_ms":0,"count":200}`: the newest entries that are older; 0: the newest of all.
/// Answered by HistoryReply, and behind it by as many lines as that says, each an entry (History::encode), the newest
/// first. There may be a few more than `count`, which are as old as the last: pageOf().
struct HistoryRequest {
    static constexpr std::size_t maxCount = 500;
    std::optional<EpochMilliseconds> before = {};
    std::size_t count = maxCount; ///< 1 to maxCount
    friend bool operator==(const HistoryRequest&, const HistoryRequest&) = default;
};

/// `{"request":"clear_history"}`. Answered by FoundReply.
struct ClearHistoryRequest {
    friend bool operator==(const ClearHistoryRequest&, const ClearHistoryRequest&) = default;
};

using PhoneRequest = std::variant<RenamePhoneRequest, RemovePhoneRequest, WakePhoneRequest, SendTextRequest,
                                  HistoryRequest, ClearHistoryRequest>;

/// `{"entries":3}`: so many lines follow.
struct HistoryReply {
    std::size_t entries = 0;
    friend bool operator==(const HistoryReply&, const HistoryReply&) = default;
};

[[nodiscard]] Json encodePhoneRequest(const PhoneRequest& request);
/// The request called `what`; nothing if that is none of these. @throws JsonError, HostError
[[nodiscard]] std::optional<PhoneRequest> decodePhoneRequest(const std::string& what, const Json& object);

} // namespace orlinth::host
