#include "OrlinthHost/Service/Presence.h"

#include <gtest/gtest.h>

namespace orlinth::host {
namespace {

using enum PresenceState;

class PresenceTest : public testing::Test {
protected:
    [[nodiscard]] Presence::Instant instant() const { return Presence::Instant(time_); }
    [[nodiscard]] Presence::Moment now() const {
        return {.instant = instant(), .epoch = fromEpochMilliseconds(1'731'686'400'000) + floorToMilliseconds()};
    }
    [[nodiscard]] std::chrono::milliseconds floorToMilliseconds() const {
        return std::chrono::floor<std::chrono::milliseconds>(time_);
    }
    void pass(Seconds time) { time_ += time; }
    [[nodiscard]] PresenceState state() const { return presence_.of(phone_, instant()).state; }
    [[nodiscard]] std::optional<EpochMilliseconds> seen() const { return presence_.of(phone_, instant()).seen; }

    Presence presence_;
    Seconds time_ = 1000s;
    const PeerKey phone_ = PeerKey("pixel");
    const PeerKey tablet_ = PeerKey("tablet");
};

TEST_F(PresenceTest, IsUnknownBeforeAnythingHappens) {
    EXPECT_EQ(state(), unknown);
    EXPECT_EQ(seen(), std::nullopt);
    presence_.disappeared(phone_);
    presence_.left(tablet_, now());
    EXPECT_EQ(presence_.of(tablet_, instant()).seen, std::nullopt) << "it had not come";
    EXPECT_EQ(state(), unknown);
    EXPECT_EQ(presence_.of(phone_, instant()).peerKey, phone_);
}

TEST_F(PresenceTest, IsHereForTwoMinutesAfterAProof) {
    presence_.proved(phone_, now());
    const EpochMilliseconds then = now().epoch;
    EXPECT_EQ(state(), here);
    pass(120s);
    EXPECT_EQ(state(), here);
    pass(1s);
    EXPECT_EQ(state(), away);
    EXPECT_EQ(seen(), then);
    EXPECT_EQ(presence_.of(tablet_, instant()).state, unknown);
}

TEST_F(PresenceTest, IsHereAsLongAsAConnectionIsOpen) {
    presence_.arrived(phone_, now());
    presence_.arrived(phone_, now());
    pass(3600s);
    presence_.left(phone_, now());
    pass(3600s);
    EXPECT_EQ(state(), here) << "of the other one";
    presence_.left(phone_, now());
    const EpochMilliseconds end = now().epoch;
    pass(120s);
    EXPECT_EQ(state(), here);
    EXPECT_EQ(seen(), end);
    pass(1s);
    EXPECT_EQ(state(), away);
}

TEST_F(PresenceTest, IsHereForAMinuteAfterAConfirmationAndThenAsleepForTen) {
    presence_.confirmed(phone_, instant());
    EXPECT_EQ(state(), here);
    EXPECT_EQ(seen(), std::nullopt) << "a hardware address is no proof";
    pass(60s);
    EXPECT_EQ(state(), here);
    pass(1s);
    EXPECT_EQ(state(), asleep);
    pass(539s);
    EXPECT_EQ(state(), asleep);
    pass(1s);
    EXPECT_EQ(state(), away);
}

TEST_F(PresenceTest, IsAsleepOnceItHasRefusedUntilItProvesItsKey) {
    presence_.proved(phone_, now());
    presence_.refused(phone_, instant());
    EXPECT_EQ(state(), asleep);
    presence_.confirmed(phone_, instant());
    EXPECT_EQ(state(), asleep) << "it answers, but not to us";
    pass(7200s);
    EXPECT_EQ(state(), asleep);
    presence_.proved(phone_, now());
    EXPECT_EQ(state(), here);
    presence_.confirmed(phone_, instant());
    pass(60s);
    EXPECT_EQ(state(), here);
}

TEST_F(PresenceTest, IsAwayOnceItDoesNotAnswer) {
    presence_.proved(phone_, now());
    presence_.failed(phone_, instant());
    EXPECT_EQ(state(), away);
    presence_.refused(phone_, instant());
    presence_.disappeared(phone_);
    EXPECT_EQ(state(), away);
    presence_.confirmed(phone_, instant());
    EXPECT_EQ(state(), here);
    presence_.disappeared(phone_);
    EXPECT_EQ(state(), away);
}

TEST_F(PresenceTest, IsUnknownInAnotherNetworkButForItsOpenConnectionsAndWhenItWasSeen) {
    presence_.proved(phone_, now());
    presence_.arrived(tablet_, now());
    const EpochMilliseconds then = now().epoch;
    presence_.networkChanged(instant());
    EXPECT_EQ(state(), unknown);
    EXPECT_EQ(seen(), then);
    EXPECT_EQ(presence_.of(tablet_, instant()).state, here);
    presence_.left(tablet_, now());
    pass(121s);
    EXPECT_NE(presence_.of(tablet_, instant()).state, here);
}

TEST_F(PresenceTest, WasSeenWhenItWasLastHeardOfAndNotWhenItsConnectionWasGivenUp) {
    presence_.arrived(phone_, now());
    pass(10s);
    const Presence::Moment last = now();
    pass(100s);
    presence_.left(phone_, last);
    EXPECT_EQ(seen(), last.epoch);
    EXPECT_EQ(state(), here);
    pass(20s);
    EXPECT_EQ(state(), here);
    pass(1s);
    EXPECT_EQ(state(), away);
    const EpochMilliseconds proof = now().epoch;
    presence_.proved(phone_, now());
    presence_.proved(phone_, last);
    EXPECT_EQ(seen(), proof) << "of an earlier connection";
    EXPECT_EQ(state(), here);
}

TEST_F(PresenceTest, IsNotThereForWhatCameBeforeItFailedOrInAnotherNetwork) {
    presence_.arrived(phone_, now());
    presence_.arrived(phone_, now());
    const Presence::Moment last = now();
    pass(10s);
    presence_.refused(phone_, instant());
    presence_.left(phone_, last);
    presence_.left(phone_, last);
    EXPECT_EQ(state(), asleep);
    presence_.failed(phone_, instant());
    presence_.proved(phone_, last);
    EXPECT_EQ(state(), away);
    presence_.networkChanged(instant());
    presence_.proved(phone_, last);
    EXPECT_EQ(state(), unknown);
    EXPECT_EQ(seen(), last.epoch);
    presence_.proved(phone_, now());
    EXPECT_EQ(state(), here);
}

} // namespace
} // namespace orlinth::host
