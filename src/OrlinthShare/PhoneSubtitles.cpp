#include "OrlinthShare/PhoneSubtitles.h"

#include <algorithm>
#include <optional>
#include <string>

namespace orlinth::share {
namespace {

/// Between the parts of a phone's second line.
constexpr std::string_view separator = " · ";

/// Nothing if the list says as much.
std::optional<std::string> textOf(const SharePresence& phone, const QDateTime& now) {
    switch (phone.state) {
    case SharePresence::State::here:
        return "Here now";
    case SharePresence::State::asleep:
        return phone.canWake ? "Asleep, will be woken" : "Asleep";
    case SharePresence::State::away:
        if (phone.seen) {
            const QDateTime seen = QDateTime::fromMSecsSinceEpoch(toNumber(*phone.seen));
            const bool isToday = seen.date() == now.date();
            return "Last here " +
                   seen.toString(isToday ? QStringLiteral("HH:mm") : QStringLiteral("yyyy-MM-dd")).toStdString();
        }
        break;
    case SharePresence::State::unknown:
        break;
    }
    return std::nullopt;
}

} // namespace

void showPresence(std::vector<ShareOutbox::SharePeer>& phones, const std::vector<SharePresence>& presence,
                  const QDateTime& now) {
    for (ShareOutbox::SharePeer& phone : phones) {
        const auto known = std::ranges::find(presence, phone.pubkey, &SharePresence::pubkey);
        const std::optional<std::string> text = known != presence.end() ? textOf(*known, now) : std::nullopt;
        if (!text) {
            continue;
        }
        const bool hasNamesake = std::ranges::count(phones, phone.hostname, &ShareOutbox::SharePeer::hostname) > 1;
        const std::size_t rest = phone.subtitle.find(separator);
        const bool keepsRest = hasNamesake && rest != std::string::npos;
        phone.subtitle = *text + (keepsRest ? phone.subtitle.substr(rest) : "");
    }
}

} // namespace orlinth::share
