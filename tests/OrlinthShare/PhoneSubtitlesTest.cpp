#include "OrlinthShare/PhoneSubtitles.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orlinth::share {
namespace {

using enum SharePresence::State;
using testing::ElementsAre;

const QDateTime now(QDate(2026, 3, 9), QTime(17, 0));

EpochMilliseconds moment(const QDateTime& time) {
    return fromEpochMilliseconds(time.toMSecsSinceEpoch());
}

ShareOutbox::SharePeer phone(const char* key, const char* name, const char* subtitle) {
    return {.hostname = name, .pubkey = PeerKey(key), .subtitle = subtitle};
}

std::vector<std::string> subtitles(std::vector<ShareOutbox::SharePeer> phones,
                                   const std::vector<SharePresence>& presence) {
    showPresence(phones, presence, now);
    std::vector<std::string> texts;
    for (const ShareOutbox::SharePeer& one : phones) {
        texts.push_back(one.subtitle);
    }
    return texts;
}

TEST(PhoneSubtitles, SayWhatTheServiceKnowsNow) {
    const std::string list = "last here 2026-03-01 08:00 · paired 2026-02-01";
    const std::vector<ShareOutbox::SharePeer> phones{phone("a", "A", list.c_str()), phone("b", "B", list.c_str()),
                                                     phone("c", "C", list.c_str()), phone("d", "D", list.c_str()),
                                                     phone("e", "E", list.c_str()), phone("f", "F", list.c_str()),
                                                     phone("g", "G", list.c_str()), phone("h", "H", list.c_str())};
    const std::vector<SharePresence> presence{
        {.pubkey = PeerKey("b"), .state = asleep, .canWake = true},
        {.pubkey = PeerKey("a"), .state = here},
        {.pubkey = PeerKey("c"), .state = asleep},
        {.pubkey = PeerKey("d"), .state = away, .seen = moment(QDateTime(now.date(), QTime(14, 5)))},
        {.pubkey = PeerKey("e"), .state = away, .seen = moment(QDateTime(now.date().addDays(-1), QTime(23, 5)))},
        {.pubkey = PeerKey("f"), .state = away},
        {.pubkey = PeerKey("g"), .state = unknown, .seen = moment(now)},
        {.pubkey = PeerKey("of another list"), .state = here}};
    EXPECT_THAT(subtitles(phones, presence), ElementsAre("Here now", "Asleep, will be woken", "Asleep",
                                                         "Last here 14:05", "Last here 2026-03-08", list, list, list));
    EXPECT_THAT(subtitles(phones, {}), testing::Each(list)) << "no service runs";
}

TEST(PhoneSubtitles, OfPhonesOfOneNameTellThemApart) {
    EXPECT_THAT(
        subtitles({phone("a", "Pixel-8", "192.168.1.30 · paired 2026-02-01"),
                   phone("b", "Pixel-8", "192.168.1.31 · paired 2026-02-02"), phone("c", "Pixel-8", "192.168.1.32")},
                  {{.pubkey = PeerKey("a"), .state = here},
                   {.pubkey = PeerKey("b"), .state = here},
                   {.pubkey = PeerKey("c"), .state = here}}),
        ElementsAre("Here now · paired 2026-02-01", "Here now · paired 2026-02-02", "Here now"));
}

} // namespace
} // namespace orlinth::share
