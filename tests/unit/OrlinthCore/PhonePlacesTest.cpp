#include "OrlinthCore/Receiving/PhonePlaces.h"

#include "OrlinthCore/Receiving/ReceiveError.h"
#include "fakes/VirtualClock.h"

#include <gmock/gmock.h>

#include <optional>
#include <vector>

namespace orlinth {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class PhonePlacesTest : public testing::Test {
protected:
    PhonePlaces::Claim& connect(const std::string& phone = "phone") {
        const std::size_t number = claims.size();
        claims.push_back(std::make_unique<PhonePlaces::Claim>(places, clock, PeerKey(phone),
                                                              [this, number] { dismissed.push_back(number); }));
        return *claims.back();
    }
    void fill() {
        while (claims.size() < limits::connectionsOfOnePhone) {
            connect();
            context.restart();
            fakes::runVirtual(context, clock, clock.sleep(1s));
        }
    }

    asio::io_context context;
    fakes::VirtualClock clock{context};
    PhonePlaces places;
    std::vector<std::unique_ptr<PhonePlaces::Claim>> claims;
    std::vector<std::size_t> dismissed;
};

TEST_F(PhonePlacesTest, TheOldestIdleConnectionMakesRoom) {
    fill();
    EXPECT_THAT(dismissed, IsEmpty());
    claims[0]->beginTransfer();
    claims[2]->beginTransfer();
    connect();
    connect();
    EXPECT_THAT(dismissed, ElementsAre(1, 3));
    EXPECT_EQ(places.count(PeerKey("phone")), limits::connectionsOfOnePhone);
}

TEST_F(PhonePlacesTest, AmongTransfersOnlyTheOneThatWasNotHeardOfForLongest) {
    fill();
    for (const auto& claim : claims) {
        claim->beginTransfer();
    }
    claims[0]->heard();
    claims[1]->heard();
    connect();
    EXPECT_THAT(dismissed, ElementsAre(2));
}

TEST_F(PhonePlacesTest, WhoHasEndedLeavesAPlaceAndOnePhoneTakesNoneOfAnothers) {
    fill();
    claims[5].reset();
    connect();
    connect("other");
    EXPECT_THAT(dismissed, IsEmpty());
    connect();
    EXPECT_THAT(dismissed, ElementsAre(0));
    claims[0]->heard(); // it may not know yet
    claims[0].reset();
    EXPECT_EQ(places.count(PeerKey("phone")), limits::connectionsOfOnePhone);
    EXPECT_EQ(places.count(PeerKey("other")), 1U);
    claims.clear();
    EXPECT_EQ(places.count(PeerKey("phone")), 0U);
}

TEST_F(PhonePlacesTest, ThoseThatHaveToGoCountUntilTheyAreGone) {
    fill();
    while (claims.size() < limits::connectionsOfOnePhoneInAll) {
        connect();
    }
    const std::size_t leaving = limits::connectionsOfOnePhoneInAll - limits::connectionsOfOnePhone;
    EXPECT_EQ(dismissed.size(), leaving);
    EXPECT_THROW(connect(), ReceiveError);
    EXPECT_EQ(dismissed.size(), leaving) << "nobody goes for one that does not come in";
    EXPECT_EQ(places.count(PeerKey("phone")), limits::connectionsOfOnePhone);
    connect("other");
    claims[0].reset();
    connect();
    EXPECT_EQ(dismissed.size(), leaving + 1);
    claims.clear();
    EXPECT_EQ(places.count(PeerKey("phone")), 0U);
    connect();
    EXPECT_EQ(places.count(PeerKey("phone")), 1U);
}

} // namespace
} // namespace orlinth
