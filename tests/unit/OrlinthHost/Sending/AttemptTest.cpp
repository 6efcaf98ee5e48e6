#include "OrlinthHost/Sending/Attempt.h"

#include "OrlinthHost/Sending/Delivery.h"
#include "platform/Cancelled.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orlinth::host {
namespace {

std::exception_ptr thrown(const auto& error) {
    return std::make_exception_ptr(error);
}

TEST(Attempt, KnowsHowFarItCame) {
    Attempt attempt;
    EXPECT_EQ(attempt.stage(), AttemptStage::connecting);
    attempt.onWaking();
    EXPECT_EQ(attempt.stage(), AttemptStage::connecting);
    attempt.onConnected();
    EXPECT_EQ(attempt.stage(), AttemptStage::greeting);
    attempt.onHandshakeComplete();
    EXPECT_EQ(attempt.stage(), AttemptStage::offering);
    EXPECT_EQ(attempt.beganAt(), std::nullopt);
    attempt.onProgress(100, 300);
    EXPECT_EQ(attempt.stage(), AttemptStage::sending);
    attempt.onComplete({});
    EXPECT_EQ(attempt.stage(), AttemptStage::farewell);
}

TEST(Attempt, TellsWhatThePhoneHadFromWhatHasGone) {
    Attempt attempt;
    attempt.onProgress(100, 300);
    EXPECT_EQ(attempt.beganAt(), 100);
    EXPECT_FALSE(attempt.hasMoved());
    attempt.onProgress(200, 300);
    EXPECT_EQ(attempt.beganAt(), 100);
    EXPECT_TRUE(attempt.hasMoved());
}

TEST(Attempt, BeginsAnewWithAFurtherConnection) {
    Attempt attempt;
    attempt.onProgress(100, 300);
    attempt.onComplete({});
    attempt.onConnected();
    EXPECT_EQ(attempt.stage(), AttemptStage::greeting);
    EXPECT_EQ(attempt.beganAt(), 100) << "of the attempt, not of the connection";
}

struct Judged {
    const char* what;
    EndedAttempt attempt;
    SendVerdict verdict;
};

TEST(SendVerdict, SaysWhatToDoNext) {
    using Stage = AttemptStage;
    const std::exception_ptr refused = thrown(SendError::network("Connection refused", SendError::Reason::refused));
    const std::exception_ptr eof = thrown(WireConnection::Error::eof());
    const std::vector<Judged> table{
        {"it is there", {.error = nullptr, .stage = Stage::farewell}, SendVerdict::delivered},
        {"declined", {.error = thrown(SendError::declined()), .stage = Stage::offering}, SendVerdict::fileLost},
        {"gone", {.error = thrown(SendError::fileMissing("/a"))}, SendVerdict::fileLost},
        {"unreadable", {.error = thrown(SendError::fileRead("x")), .stage = Stage::sending}, SendVerdict::fileLost},
        {"removed", {.error = thrown(SendError::peerRemoved()), .stage = Stage::offering}, SendVerdict::phoneLost},
        {"in doubt", {.error = thrown(DeliveryInDoubt()), .stage = Stage::farewell}, SendVerdict::inDoubt},
        {"in doubt, with others",
         {.error = thrown(DeliveryInDoubt()), .stage = Stage::farewell, .hadCompany = true},
         SendVerdict::inDoubt},
        {"cancelled", {.error = thrown(platform::Cancelled()), .stage = Stage::sending}, SendVerdict::cancelled},
        {"by the caller", {.error = thrown(SendError::cancelled()), .stage = Stage::sending}, SendVerdict::cancelled},
        {"refused", {.error = refused}, SendVerdict::tryAgain},
        {"broken", {.error = eof, .stage = Stage::sending}, SendVerdict::tryAgain},
        {"somebody else",
         {.error = thrown(SendError::unauthorizedPeer()), .stage = Stage::greeting},
         SendVerdict::tryAgain},
        {"something unknown", {.error = thrown(std::runtime_error("x"))}, SendVerdict::tryAgain},
        {"the one on which all depends is refused",
         {.error = refused, .mayWake = true, .hadCompany = true},
         SendVerdict::tryAgain},
        {"another one is refused", {.error = refused, .mayWake = false, .hadCompany = true}, SendVerdict::oneTooMany},
        {"dropped in the handshake, with others",
         {.error = eof, .stage = Stage::greeting, .hadCompany = true},
         SendVerdict::oneTooMany},
        {"dropped in the middle, with others",
         {.error = eof, .stage = Stage::sending, .hadCompany = true},
         SendVerdict::oneTooMany},
        {"the handshake fails, with others",
         {.error = thrown(SendError::noiseHandshakeFailed("x")), .stage = Stage::greeting, .hadCompany = true},
         SendVerdict::oneTooMany},
        {"makes no sense, with others",
         {.error = thrown(SendError::malformedResume("x")), .stage = Stage::offering, .hadCompany = true},
         SendVerdict::tryAgain},
        {"says something else, with others",
         {.error = thrown(SendError::unexpectedFrame("x")), .stage = Stage::offering, .hadCompany = true},
         SendVerdict::tryAgain},
        {"somebody else, with others",
         {.error = thrown(SendError::unauthorizedPeer()), .stage = Stage::greeting, .hadCompany = true},
         SendVerdict::tryAgain},
        {"declined, with others",
         {.error = thrown(SendError::declined()), .stage = Stage::offering, .hadCompany = true},
         SendVerdict::fileLost},
    };
    for (const Judged& row : table) {
        EXPECT_EQ(judge(row.attempt), row.verdict) << row.what;
    }
}

TEST(NotTaken, IsAnEndBetweenTheKeyAndTheAnswer) {
    using Stage = AttemptStage;
    const std::exception_ptr end = thrown(WireConnection::Error::eof());
    EXPECT_TRUE(isNotTaken({.error = end, .stage = Stage::offering}));
    EXPECT_TRUE(isNotTaken({.error = thrown(WireConnection::Error::underlying("x")), .stage = Stage::offering}));
    EXPECT_FALSE(isNotTaken({.error = end, .stage = Stage::greeting}));
    EXPECT_FALSE(isNotTaken({.error = end, .stage = Stage::sending}));
    EXPECT_FALSE(isNotTaken({.error = thrown(WireConnection::Error::oversize(1)), .stage = Stage::offering}));
    EXPECT_FALSE(isNotTaken({.error = thrown(SendError::declined()), .stage = Stage::offering}));
    EXPECT_FALSE(isNotTaken({.error = nullptr, .stage = Stage::offering}));
}

TEST(FailureText, SaysThatThePhoneMayNotKnowThisComputer) {
    const std::exception_ptr end = thrown(WireConnection::Error::eof());
    EXPECT_EQ(failureText({.error = end, .stage = AttemptStage::offering}),
              "the phone ended the connection before it took the file; it may no longer know this computer");
    EXPECT_EQ(failureText({.error = end, .stage = AttemptStage::sending}), "wire EOF before expected bytes");
}

} // namespace
} // namespace orlinth::host
