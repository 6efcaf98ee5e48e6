#include "OrlinthHost/Sending/Attempt.h"

#include "OrlinthHost/Sending/Delivery.h"
#include "platform/Cancelled.h"

namespace orlinth::host {

namespace {

SendVerdict judge(const SendError& error) {
    switch (error.which()) {
    case SendError::Case::declined:
    case SendError::Case::fileMissing:
    case SendError::Case::fileRead:
        return SendVerdict::fileLost;
    case SendError::Case::peerRemoved:
        return SendVerdict::phoneLost;
    case SendError::Case::cancelled:
        return SendVerdict::cancelled;
    default:
        return SendVerdict::tryAgain;
    }
}

/// Whether it is a connection that failed, which others beside it may have caused; not what the phone said.
bool isOfTheConnection(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const SendError& failure) {
        return failure.which() == SendError::Case::network || failure.which() == SendError::Case::noiseHandshakeFailed;
    } catch (const WireConnection::Error&) {
        return true;
    } catch (...) {
        return false;
    }
}

SendVerdict judge(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const SendError& failure) {
        return judge(failure);
    } catch (const DeliveryInDoubt&) {
        return SendVerdict::inDoubt;
    } catch (const std::exception& failure) {
        return platform::isCancellation(failure) ? SendVerdict::cancelled : SendVerdict::tryAgain;
    }
}

} // namespace

void Attempt::onProgress(std::int64_t bytesSent, std::int64_t /*totalBytes*/) {
    stage_ = AttemptStage::sending;
    if (beganAt_) {
        hasMoved_ = true;
    } else {
        beganAt_ = bytesSent; // the first is what the phone had before
    }
}

void Attempt::onComplete(const SentFile& /*result*/) {
    stage_ = AttemptStage::farewell;
}

SendVerdict judge(const EndedAttempt& attempt) {
    if (!attempt.error) {
        return SendVerdict::delivered;
    }
    const SendVerdict verdict = judge(attempt.error);
    // One that could not even connect while others did was one too many, unless it was the one on which all depends.
    const bool companyMayBeTheReason =
        attempt.hadCompany && (attempt.stage != AttemptStage::connecting || !attempt.mayWake);
    return verdict == SendVerdict::tryAgain && companyMayBeTheReason && isOfTheConnection(attempt.error)
               ? SendVerdict::oneTooMany
               : verdict;
}

bool isNotTaken(const EndedAttempt& attempt) {
    if (attempt.stage != AttemptStage::offering || !attempt.error) {
        return false;
    }
    try {
        std::rethrow_exception(attempt.error);
    } catch (const WireConnection::Error& failure) {
        return failure.which() != WireConnection::Error::Case::oversize;
    } catch (...) {
        return false;
    }
}

std::string failureText(const EndedAttempt& attempt) {
    return isNotTaken(attempt)
               ? "the phone ended the connection before it took the file; it may no longer know this computer"
               : describe(attempt.error);
}

} // namespace orlinth::host
