#pragma once

#include "OrlinthHost/Service/PairingView.h"
#include "OrlinthHost/Service/PhoneMessages.h"
#include "OrlinthHost/Service/PhonePresence.h"
#include "OrlinthHost/Settings/SettingRules.h"
#include "base/StrongText.h"
#include "base/Time.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace orlinth::host {

/// What is said over the control socket: one request a connection and its reply, each one line, an object of JSON.
/// Members that are not named here are nobody's business. These are values: ControlLine.h moves them.

/// `{"request":"port"}`: which port the service has. Answered by PortReply.
struct PortRequest {
    friend bool operator==(const PortRequest&, const PortRequest&) = default;
};

/// `{"request":"lend_port"}`: the service steps aside until the connection ends. Answered by PortReply, and behind its
/// line end by the listening socket; or by NotLentReply.
struct LendPortRequest {
    std::optional<std::uint16_t> port = {}; ///< `"port":N`: only that port is wanted
    friend bool operator==(const LendPortRequest&, const LendPortRequest&) = default;
};

/// `{"request":"outbox_retry"}`: tries now to send what waits. Answered by FoundReply.
struct OutboxRetryRequest {
    std::optional<BatchId> batch = {}; ///< `"batch":"…"`: that batch as a whole, also if it was set aside
    friend bool operator==(const OutboxRetryRequest&, const OutboxRetryRequest&) = default;
};

/// `{"request":"outbox_drop","batch":"…"}`: removes a batch. Answered by FoundReply once nothing is left of it.
struct OutboxDropRequest {
    BatchId batch;
    friend bool operator==(const OutboxDropRequest&, const OutboxDropRequest&) = default;
};

/// `{"request":"presence"}`: which phones are there. Answered by PresenceReply.
struct PresenceRequest {
    friend bool operator==(const PresenceRequest&, const PresenceRequest&) = default;
};

/// `{"request":"cancel","transfer":7}`: ends a transfer for good. Answered by FoundReply.
struct CancelRequest {
    std::uint64_t transfer = 0; ///< TransferNumber
    friend bool operator==(const CancelRequest&, const CancelRequest&) = default;
};

/// `{"request":"accept","offer":3}` or `{"request":"decline","offer":3}`: whether to take a file that a phone offers.
/// Answered by FoundReply: the first answer counts.
struct AnswerOfferRequest {
    std::uint64_t offer = 0; ///< OfferNumber
    bool isAccepted = false;
    friend bool operator==(const AnswerOfferRequest&, const AnswerOfferRequest&) = default;
};

/// `{"request":"pair"}`, where wanted with "interface":"wlan0", "timeout_seconds":60, "announce":true and
/// "listen_public":true: pairs a phone. Answered by a line of PairingMessage.h, and behind its line end by what the
/// code says (UnixSockets::sendSecret), and then by a line for each change; or by ErrorReply. The pairing ends with the
/// connection.
struct PairRequest {
    PairingOptions options = {};
    friend bool operator==(const PairRequest&, const PairRequest&) = default;
};

/// `{"request":"status"}`: what there is. Answered by the lines of ServiceNews.h up to CurrentLine.
struct StatusRequest {
    friend bool operator==(const StatusRequest&, const StatusRequest&) = default;
};

/// `{"request":"watch"}`: the same, and then what changes, until the connection ends.
struct WatchRequest {
    friend bool operator==(const WatchRequest&, const WatchRequest&) = default;
};

/// `{"request":"last_text"}`: the last text that came. Answered by TextReply, and behind its line end by the text
/// itself (UnixSockets::sendSecret); or by FoundReply that there is none.
struct LastTextRequest {
    friend bool operator==(const LastTextRequest&, const LastTextRequest&) = default;
};

/// `{"request":"forget_text"}`: wipes that text. Answered by FoundReply.
struct ForgetTextRequest {
    friend bool operator==(const ForgetTextRequest&, const ForgetTextRequest&) = default;
};

/// `{"request":"restart"}`: ends the service so that its manager starts it anew. Answered by FoundReply before that, or
/// by ErrorReply if nobody would start it.
struct RestartRequest {
    friend bool operator==(const RestartRequest&, const RestartRequest&) = default;
};

/// `{"request":"settings"}`: what is set. Answered by SettingLines of ServiceNews.h, and CurrentLine.
struct SettingsRequest {
    friend bool operator==(const SettingsRequest&, const SettingsRequest&) = default;
};

/// `{"request":"set","setting":"accept","value":"ask"}`: from now on; "" is "as usual again". Answered by FoundReply
/// that it is so, or ErrorReply.
struct SetRequest {
    std::string setting;
    SettingValue value;
    friend bool operator==(const SetRequest&, const SetRequest&) = default;
};

using ControlRequest =
    std::variant<PortRequest, LendPortRequest, OutboxRetryRequest, OutboxDropRequest, PresenceRequest, CancelRequest,
                 AnswerOfferRequest, PairRequest, StatusRequest, WatchRequest, LastTextRequest, ForgetTextRequest,
                 RestartRequest, SettingsRequest, SetRequest, PhoneRequest>;

/// `{"downloads":"/home/ada/Downloads","port":28471,"since_epoch_ms":1731686400000}`. To a request for a loan only the
/// port is said.
struct PortReply {
    static constexpr std::size_t maxFolderBytes = 600; ///< of a line of at most 4 KiB; each may take six there
    std::uint16_t port = 0;                            ///< never 0
    /// The folder for received files, absolute; "" if it is not said: it is longer than that, or not in UTF-8.
    std::string downloads = {};
    std::optional<EpochMilliseconds> since = {}; ///< when the service began to listen there
    friend bool operator==(const PortReply&, const PortReply&) = default;
};

/// `{"lent":false,"port":28471}`: another port than the wanted one.
struct NotLentReply {
    std::uint16_t port = 0; ///< never 0; the one that the service has
    friend bool operator==(const NotLentReply&, const NotLentReply&) = default;
};

/// `{"found":true}`, or false if there is no such batch, transfer, offer, text or phone.
struct FoundReply {
    bool isFound = false;
    friend bool operator==(const FoundReply&, const FoundReply&) = default;
};

/// `{"phones":[{"can_wake":true,"peer_pubkey":"…","seen_epoch_ms":1731686400000,"state":"here"}]}`: the paired phones,
/// of many the 24 that were paired last. A phone that was never seen has 0 there. The states are "here", "asleep",
/// "away" and "unknown"; any other text is read as the last.
struct PresenceReply {
    static constexpr std::size_t maxPhones = 24;
    std::vector<PhonePresence> phones;
    friend bool operator==(const PresenceReply&, const PresenceReply&) = default;
};

/// `{"from":"Pixel 8","received_epoch_ms":1731686400000,"text_bytes":42}`: what is to be known of the text that
/// follows.
struct TextReply {
    std::string from; ///< the phone's name
    EpochMilliseconds received = {};
    std::uint64_t bytes = 0;
    friend bool operator==(const TextReply&, const TextReply&) = default;
};

/// `{"error":"…"}`: it was not done.
struct ErrorReply {
    std::string problem;
    friend bool operator==(const ErrorReply&, const ErrorReply&) = default;
};

using ControlReply =
    std::variant<PortReply, NotLentReply, FoundReply, PresenceReply, TextReply, HistoryReply, ErrorReply>;

/// As one line, without its end.
[[nodiscard]] std::string encodeControlRequest(const ControlRequest& request);
/// The same with the version of the client's program in it, `"version":"0.1.0"`, unless that is "".
[[nodiscard]] std::string encodeControlRequestFrom(const std::string& version, const ControlRequest& request);
[[nodiscard]] std::string encodeControlReply(const ControlReply& reply);

/// The state's text, as above and in the events of commands.
[[nodiscard]] const char* textOf(PresenceState state) noexcept;

/// `line` is without its end. @throws JsonError or HostError, whose text the one who asked may read
[[nodiscard]] ControlRequest decodeControlRequest(std::string_view line);
/// The client's version as a request says it; "" if it does not. @throws JsonError
[[nodiscard]] std::string decodeClientVersion(std::string_view line);
/// An object that has several of the members counts as the first of: error, port, found, phones,
/// text_bytes, entries. @throws likewise
[[nodiscard]] ControlReply decodeControlReply(std::string_view line);

} // namespace orlinth::host
