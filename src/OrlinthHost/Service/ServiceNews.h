#pragma once

#include "OrlinthHost/Service/History.h"
#include "OrlinthHost/Service/OfferView.h"
#include "OrlinthHost/Service/ServiceView.h"
#include "OrlinthHost/Settings/SettingView.h"

#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace orlinth::host {

/// What the control socket says to those who watch, one object of JSON a line. First everything that there is, then
/// CurrentLine, then whatever changes, each thing as a whole. Members that are not named here are nobody's business.

/// `{"event":"service","state":"listening","port":28471,"downloads":"…","name":"ann-laptop"}`, and "message" if the
/// port cannot be opened, or a folder cannot be written. The states are "starting", "listening", "lent",
/// "not-listening" and "stopping".
using ServiceLine = ServiceView;

/// `{"event":"phone","peer_pubkey":"…","name":"Pixel 8","state":"here","seen_epoch_ms":1731686400000,"can_wake":true,
/// "paired_at_epoch_ms":1731686400000,"address":"192.168.1.7"}`.
using PhoneLine = PhoneView;

/// `{"event":"transfer","transfer":7,"direction":"in","peer_pubkey":"…","phone":"Pixel 8","name":"film.mov",
/// "state":"active","bytes_done":41,"total_bytes":100,"bytes_per_second":20}`; "batch" for what goes out, "message" if
/// it failed, "path" if it came in. The states are "active", "finishing", "done", "failed" and "cancelled".
using TransferLine = TransferView;

/// `{"event":"batch","batch":"…","peer_pubkey":"…","phone":"Tablet","created_at_epoch_ms":1731686400000,"files":400,
/// "files_done":38,"state":"paused","next_attempt_epoch_ms":1731686400000,"message":"…"}`; the last two where there is
/// such a thing. The states are "waiting", "sending", "paused" and "failed".
using BatchLine = OutboxView;

/// `{"event":"offer","offer":3,"peer_pubkey":"…","phone":"Pixel 8","name":"film.mov","size":4100000,
/// "expires_epoch_ms":1731686400000}`: a file that waits for a yes or a no; the last once its time runs.
using OfferLine = OfferView;

/// `{"event":"setting","name":"accept","value":"ask","fixed_by":"config.toml, line 3"}`: to those who ask for the
/// settings, and to those who watch when it has changed. The value is a text, true or false, or a number of bytes;
/// "fixed_by" where the service cannot change it.
using SettingLine = SettingView;

/// `{"event":"transfer_gone","transfer":7}`: it is listed no more.
struct TransferGoneLine {
    TransferNumber number{};
    friend bool operator==(const TransferGoneLine&, const TransferGoneLine&) = default;
};
/// `{"event":"batch_gone","batch":"…","peer_pubkey":"…"}`.
struct BatchGoneLine {
    BatchId batch;
    PeerKey peerKey;
    friend bool operator==(const BatchGoneLine&, const BatchGoneLine&) = default;
};
/// `{"event":"phone_gone","peer_pubkey":"…"}`.
struct PhoneGoneLine {
    PeerKey peerKey;
    friend bool operator==(const PhoneGoneLine&, const PhoneGoneLine&) = default;
};
/// `{"event":"offer_gone","offer":3}`: it waits no more.
struct OfferGoneLine {
    OfferNumber number{};
    friend bool operator==(const OfferGoneLine&, const OfferGoneLine&) = default;
};
/// `{"event":"setting_gone","name":"phones.KEY.dir"}`: it is not set any more.
struct SettingGoneLine {
    std::string name;
    friend bool operator==(const SettingGoneLine&, const SettingGoneLine&) = default;
};
/// `{"event":"history_added", …}` with what History::encode() has of an entry; without those members the history is to
/// be read anew, as it was cleared, or more was added at once than is told.
struct HistoryLine {
    std::optional<HistoryEntry> entry = {};
    friend bool operator==(const HistoryLine&, const HistoryLine&) = default;
};
/// `{"event":"current"}`: what came before is everything that there is.
struct CurrentLine {
    friend bool operator==(const CurrentLine&, const CurrentLine&) = default;
};

using ServiceNews =
    std::variant<ServiceLine, PhoneLine, TransferLine, BatchLine, OfferLine, TransferGoneLine, BatchGoneLine,
                 PhoneGoneLine, OfferGoneLine, SettingGoneLine, HistoryLine, SettingLine, CurrentLine>;

/// Bytes of a line, without its end: more than the longest path and the longest name take.
inline constexpr std::size_t maxNewsLine = 32 << 10;

/// As one line, without its end.
[[nodiscard]] std::string encodeServiceNews(const ServiceNews& news);
/// `line` is without its end. @throws JsonError or HostError for what is none of those, and with the text of
/// `{"error":"…"}`
[[nodiscard]] ServiceNews decodeServiceNews(std::string_view line);

/// The states' texts, as above and in the events of commands.
[[nodiscard]] const char* textOf(ServiceView::State state) noexcept;
[[nodiscard]] const char* textOf(TransferView::State state) noexcept;
[[nodiscard]] const char* textOf(TransferView::Direction direction) noexcept;
[[nodiscard]] const char* textOf(OutboxView::State state) noexcept;

} // namespace orlinth::host
