#include "OrlinthCore/Receiving/IncomingTransfer.h"

#include "OrlinthCore/Receiving/ReceiveError.h"
#include "OrlinthCore/Receiving/ReceivingLimits.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

namespace orlinth {
namespace {

/// What the two numbers of accept() may be.
template <typename First, typename Second>
concept AcceptsBy =
    requires(IncomingTransfer& transfer, First first, Second second) { transfer.accept(first, second); };

static_assert(AcceptsBy<ByteOffset, std::int64_t>);
static_assert(!AcceptsBy<std::int64_t, ByteOffset> && !AcceptsBy<std::int64_t, std::int64_t>,
              "a swapped pair would take what is here for what was approved");

using Scope = IncomingTransfer::Scope;
using State = IncomingTransfer::State;

const TransportMessage offer = TransportMessage::fileOffer("a.jpg", 100, "image/jpeg", "id");

/// A transfer that has come so far.
IncomingTransfer transferIn(State state, Scope scope) {
    IncomingTransfer transfer(scope);
    if (state == State::updated) {
        static_cast<void>(transfer.take(TransportMessage::tokenUpdate("token")));
    }
    if (state == State::offered || state == State::receiving) {
        static_cast<void>(transfer.take(offer));
    }
    if (state == State::receiving) {
        transfer.accept(ByteOffset());
    }
    EXPECT_EQ(transfer.state(), state);
    return transfer;
}

std::string_view nameOf(const IncomingTransfer::Action& action) {
    static constexpr std::array names{"Answer", "Update", "Finish", "Conclude"};
    return names.at(action.index());
}

/// A message, or nothing for data.
using Frame = std::optional<TransportMessage>;

/// What it asks for and the state behind it, or the text of the violation, which must be the end.
std::string outcomeOf(IncomingTransfer& transfer, const Frame& frame) {
    std::string outcome = "data";
    try {
        if (frame) {
            outcome = nameOf(transfer.take(*frame));
        } else {
            transfer.takeData(10);
        }
    } catch (const ReceiveError& error) {
        EXPECT_EQ(error.which(), ReceiveError::Case::protocolViolation);
        EXPECT_EQ(transfer.state(), State::over);
        return error.description().substr(std::string_view("protocol violation: ").size());
    }
    return outcome + " -> " + std::string(name(transfer.state()));
}

struct Rule {
    const char* what;
    Frame frame;
    /// In the states waiting, updated, offered and receiving.
    std::array<const char*, 4> outcomes;
};

constexpr std::array states{State::waiting, State::updated, State::offered, State::receiving};

/// What becomes of messages that no file has, in every state.
struct Others {
    const char* resume;
    const char* clipboard;
    const char* aboutPhone; ///< names, Unpair, Decline
};

void expectRules(Scope scope, const Others& others) {
    constexpr const char* noOffer = "binary frame before FileOffer";
    constexpr const char* doneEarly = "Done received without FileOffer";
    constexpr const char* twice = "duplicate FileOffer";
    const auto always = [](const char* outcome) { return std::array{outcome, outcome, outcome, outcome}; };
    const std::vector<Rule> rules{
        {"data", std::nullopt, {noOffer, noOffer, noOffer, "data -> receiving"}},
        {"FileOffer", offer, {"Answer -> offered", "Answer -> offered", twice, twice}},
        {"Done", TransportMessage::done(), {doneEarly, doneEarly, doneEarly, "Finish -> over"}},
        {"TokenUpdate",
         TransportMessage::tokenUpdate("t"),
         {"Update -> updated", "Update -> updated", "Update -> offered", "Update -> receiving"}},
        {"Resume", TransportMessage::resume("id", ByteOffset(5)), always(others.resume)},
        {"Clipboard", TransportMessage::clipboard("text", "text/plain"), always(others.clipboard)},
        {"SetName", TransportMessage::setName("n"), always(others.aboutPhone)},
        {"NameUpdate", TransportMessage::nameUpdate("n"), always(others.aboutPhone)},
        {"Unpair", TransportMessage::unpair(), always(others.aboutPhone)},
        {"Decline", TransportMessage::decline(), always(others.aboutPhone)}};
    for (const Rule& rule : rules) {
        for (std::size_t i = 0; i < states.size(); ++i) {
            SCOPED_TRACE(std::string(rule.what) + " when " + std::string(name(states.at(i))));
            IncomingTransfer transfer = transferIn(states.at(i), scope);
            EXPECT_EQ(outcomeOf(transfer, rule.frame), rule.outcomes.at(i));
        }
    }
}

TEST(IncomingTransfer, TheServiceTakesEveryMessageThatAPhoneMaySend) {
    expectRules(Scope::everything, {.resume = "unexpected Resume message from sender",
                                    .clipboard = "Conclude -> over",
                                    .aboutPhone = "Conclude -> over"});
}

TEST(IncomingTransfer, AReceiveOfOneFileTakesNothingElseButAToken) {
    expectRules(Scope::oneFile, {.resume = "unexpected Resume from sender",
                                 .clipboard = "clipboard frame on one-shot receive path",
                                 .aboutPhone = "name frame on one-shot receive path"});
}

TEST(IncomingTransfer, AnOfferAndATokenComeWithTheirContent) {
    IncomingTransfer transfer(Scope::everything);
    const IncomingTransfer::Action token = transfer.take(TransportMessage::tokenUpdate("token"));
    EXPECT_EQ(token, IncomingTransfer::Action(IncomingTransfer::Update{{"token"}}));
    const IncomingTransfer::Action answer = transfer.take(offer);
    EXPECT_EQ(answer, IncomingTransfer::Action(IncomingTransfer::Answer{{"a.jpg", 100, "image/jpeg", "id"}}));
}

TEST(IncomingTransfer, OnlyAPhoneThatHasBroughtItsTokenAndNothingElseMayHangUp) {
    for (const Scope scope : {Scope::everything, Scope::oneFile}) {
        for (const State state : states) {
            const bool isExpected = state == State::updated && scope == Scope::everything;
            EXPECT_EQ(transferIn(state, scope).mayHangUp(), isExpected) << name(state);
        }
    }
}

TEST(IncomingTransfer, ARefusalIsTheEnd) {
    IncomingTransfer transfer = transferIn(State::offered, Scope::everything);
    transfer.refuse();
    EXPECT_EQ(transfer.state(), State::over);
}

TEST(IncomingTransfer, AnApprovedSizeIsABoundGiveOrTakeAFrame) {
    const std::int64_t most = 100 + limits::dataFrameBytes;
    for (const std::int64_t here : {std::int64_t{0}, std::int64_t{40}}) {
        IncomingTransfer transfer = transferIn(State::offered, Scope::everything);
        transfer.accept(ByteOffset(here), 100);
        transfer.takeData(most - here);
        EXPECT_EQ(transfer.state(), State::receiving);
        try {
            transfer.takeData(1);
            ADD_FAILURE() << "a byte too many was taken";
        } catch (const ReceiveError& error) {
            EXPECT_EQ(error.description(), "protocol violation: more data than was offered");
        }
        EXPECT_EQ(transfer.state(), State::over);
    }
}

TEST(IncomingTransfer, WhatIsHereOfALargerOfferCountsToo) {
    IncomingTransfer enough = transferIn(State::offered, Scope::everything);
    enough.accept(ByteOffset(100) + limits::dataFrameBytes, 100);
    EXPECT_EQ(enough.state(), State::receiving);
    IncomingTransfer tooMuch = transferIn(State::offered, Scope::everything);
    EXPECT_THROW(tooMuch.accept(ByteOffset(101) + limits::dataFrameBytes, 100), ReceiveError);
    EXPECT_EQ(tooMuch.state(), State::over);
}

TEST(IncomingTransfer, WithoutAnApprovedSizeTheOfferIsNoBound) {
    IncomingTransfer transfer = transferIn(State::receiving, Scope::oneFile);
    transfer.takeData(limits::dataFrameBytes);
    transfer.takeData(limits::dataFrameBytes * 1000);
    EXPECT_EQ(transfer.state(), State::receiving);
}

TEST(IncomingTransferDeathTest, NothingMayFollowTheEnd) {
    IncomingTransfer transfer = transferIn(State::offered, Scope::everything);
    transfer.refuse();
    EXPECT_DEATH(static_cast<void>(transfer.take(offer)), "after the end");
    EXPECT_DEATH(transfer.takeData(1), "after the end");
    EXPECT_DEATH(transfer.accept(ByteOffset()), "without an offer");
    EXPECT_DEATH(transfer.refuse(), "without an offer");
}

} // namespace
} // namespace orlinth
