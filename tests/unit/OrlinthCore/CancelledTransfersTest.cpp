#include "OrlinthCore/Receiving/CancelledTransfers.h"

#include <gtest/gtest.h>

namespace orlinth {
namespace {

const PeerKey phone{"phone"};
const TransferId film{"film"};
constexpr platform::Clock::Instant noon{};

TEST(CancelledTransfers, AreThoseOfOnePhoneAndOneTransferForADay) {
    CancelledTransfers cancelled;
    cancelled.add(phone, film, noon);
    EXPECT_TRUE(cancelled.contains(phone, film, noon));
    EXPECT_TRUE(cancelled.contains(phone, film, noon + 23h));
    EXPECT_FALSE(cancelled.contains(phone, film, noon + 24h));
    EXPECT_FALSE(cancelled.contains(PeerKey("tablet"), film, noon));
    EXPECT_FALSE(cancelled.contains(phone, TransferId("song"), noon));
}

TEST(CancelledTransfers, CountAnewWhenCancelledAgainAndAreGoneOnceRemoved) {
    CancelledTransfers cancelled;
    cancelled.add(phone, film, noon);
    cancelled.add(phone, film, noon + 20h);
    EXPECT_TRUE(cancelled.contains(phone, film, noon + 30h));
    cancelled.remove(phone, film);
    EXPECT_FALSE(cancelled.contains(phone, film, noon + 20h));
}

TEST(CancelledTransfers, ForgetTheOldestWhenThereAreTooMany) {
    CancelledTransfers cancelled;
    for (std::size_t i = 0; i <= CancelledTransfers::maxEntries; ++i) {
        cancelled.add(phone, TransferId(std::to_string(i)), noon);
    }
    EXPECT_FALSE(cancelled.contains(phone, TransferId("0"), noon));
    EXPECT_TRUE(cancelled.contains(phone, TransferId("1"), noon));
    EXPECT_TRUE(cancelled.contains(phone, TransferId(std::to_string(CancelledTransfers::maxEntries)), noon));
}

} // namespace
} // namespace orlinth
