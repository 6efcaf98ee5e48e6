#include "OrlinthCore/Receiving/IncomingTransfer.h"

#include "OrlinthCore/Receiving/ReceiveError.h"
#include "OrlinthCore/Receiving/ReceivingLimits.h"
#include "base/Precondition.h"

namespace orlinth {

IncomingTransfer::Action IncomingTransfer::take(const TransportMessage& message) {
    if (state_ == State::over) {
        preconditionFailed("a message after the end of a transfer");
    }
    return actionOf(message);
}

IncomingTransfer::Action IncomingTransfer::actionOf(const TransportMessage& message) {
    using Tag = TransportMessage::Tag;
    const bool takesEverything = scope_ == Scope::everything;
    switch (message.tag()) {
    case Tag::FileOffer:
        if (state_ == State::offered || state_ == State::receiving) {
            violate("duplicate FileOffer");
        }
        state_ = State::offered;
        return Answer{*message.as<TransportMessage::FileOffer>()};
    case Tag::TokenUpdate:
        if (state_ == State::waiting) {
            state_ = State::updated;
        }
        return Update{*message.as<TransportMessage::TokenUpdate>()};
    case Tag::Done:
        if (state_ != State::receiving) {
            violate("Done received without FileOffer");
        }
        state_ = State::over;
        return Finish{};
    case Tag::Resume:
        violate(takesEverything ? "unexpected " + describeFrame(message) + " from sender"
                                : "unexpected Resume from sender");
    case Tag::Clipboard:
        if (!takesEverything) {
            violate("clipboard frame on one-shot receive path");
        }
        break;
    case Tag::SetName:
    case Tag::NameUpdate:
    case Tag::Unpair:
    case Tag::Decline:
        if (!takesEverything) {
            violate("name frame on one-shot receive path");
        }
        break;
    }
    state_ = State::over;
    return Conclude{};
}

void IncomingTransfer::takeData(std::int64_t bytes) {
    if (state_ == State::over) {
        preconditionFailed("data after the end of a transfer");
    }
    if (state_ != State::receiving) {
        violate("binary frame before FileOffer");
    }
    dataEnd_ += bytes;
    requireApproved();
}

void IncomingTransfer::accept(ByteOffset offset, std::optional<std::int64_t> approvedSize) {
    requireState(State::offered);
    state_ = State::receiving;
    dataEnd_ = offset;
    approvedSize_ = approvedSize;
    requireApproved();
}

void IncomingTransfer::refuse() {
    requireState(State::offered);
    state_ = State::over;
}

void IncomingTransfer::requireState(State state) const {
    if (state_ != state) {
        preconditionFailed("an answer without an offer");
    }
}

void IncomingTransfer::requireApproved() {
    if (approvedSize_ && dataEnd_.bytesBefore() - limits::dataFrameBytes > *approvedSize_) {
        violate("more data than was offered");
    }
}

void IncomingTransfer::violate(const std::string& text) {
    state_ = State::over;
    throw ReceiveError::protocolViolation(text);
}

std::string_view name(IncomingTransfer::State state) noexcept {
    using State = IncomingTransfer::State;
    switch (state) {
    case State::waiting:
        return "waiting";
    case State::updated:
        return "updated";
    case State::offered:
        return "offered";
    case State::receiving:
        return "receiving";
    case State::over:
        return "over";
    }
    return "unknown";
}

} // namespace orlinth
