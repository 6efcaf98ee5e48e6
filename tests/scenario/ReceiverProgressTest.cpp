// What the host is told of a file that comes in, and how it ends one.

#include "OrlinthCore/Receiving/CancelledTransfers.h"
#include "fakes/ReceiverWorld.h"

#include <gtest/gtest.h>

namespace orlinth {
namespace {

using fakes::ReceiverWorld;
using How = Receiver::TransferEnd::How;
using Row = TransportMessage;

class ReceiverProgressTest : public testing::Test, public ReceiverWorld {
protected:
    void SetUp() override {
        putPeers({phoneRecord(), tabletRecord()});
        start();
    }

    /// The phone sends the first four bytes of "film", which has ten.
    std::unique_ptr<fakes::ScriptedPeer> beginFilm() {
        std::unique_ptr<fakes::ScriptedPeer> sender = phone();
        EXPECT_EQ(offer(*sender, "film"), 0);
        sendData(*sender, "film");
        return sender;
    }
    /// Whether the offer of the film is declined.
    bool declinesFilm() {
        const auto sender = phone();
        run(sender->send(Row::fileOffer("film", 10, "text/plain", "ID-1")));
        run(sender->expect<Row::Decline>());
        return seesTheEnd(*sender);
    }
};

TEST_F(ReceiverProgressTest, TellsOfTheStartOfTheProgressAndOfTheEnd) {
    const auto sender = beginFilm();
    ASSERT_EQ(started.size(), 1U);
    EXPECT_EQ(started[0].name, "film");
    EXPECT_EQ(started[0].size, 10);
    EXPECT_EQ(started[0].resumedFrom, 0);
    EXPECT_EQ(started[0].from, phoneRecord().peer_hostname);
    EXPECT_EQ(started[0].peerKey, phoneKey.publicKey().peerKey());
    EXPECT_EQ(started[0].transferId, TransferId("ID-1"));
    EXPECT_TRUE(progresses.empty()) << "too early";
    pass(Receiver::progressInterval);
    sendData(*sender, "abc");
    ASSERT_EQ(progresses.size(), 1U);
    EXPECT_EQ(progresses[0].number, started[0].number);
    EXPECT_EQ(progresses[0].bytesHere, 7);
    EXPECT_TRUE(transferEnds.empty());
    sendData(*sender, "def");
    send(*sender, Row::done());
    ASSERT_EQ(transferEnds.size(), 1U);
    EXPECT_EQ(transferEnds[0].number, started[0].number);
    EXPECT_EQ(transferEnds[0].how, How::delivered);
    EXPECT_EQ(transferEnds[0].savedAt, folder / "film");
    EXPECT_EQ(endsBeforeTransferEnd, 1U) << "told behind the outcome";
}

TEST_F(ReceiverProgressTest, TellsOfProgressFourTimesASecondAtMost) {
    const auto sender = phone();
    offer(*sender, "film", 1000);
    for (int i = 0; i < 100; ++i) {
        pass(20ms);
        sendData(*sender, "x");
    }
    EXPECT_GE(progresses.size(), 6U);
    EXPECT_LE(progresses.size(), 8U);
}

TEST_F(ReceiverProgressTest, NumbersTransfersOfTheirOwnEach) {
    const auto first = phone();
    offer(*first, "a", 10, "ID-a");
    const auto second = phone();
    offer(*second, "b", 10, "ID-b");
    settle();
    ASSERT_EQ(started.size(), 2U);
    EXPECT_NE(started[0].number, started[1].number);
}

TEST_F(ReceiverProgressTest, TellsOfALostConnectionAndOfTheResume) {
    const auto sender = beginFilm();
    sender->close();
    settle();
    ASSERT_EQ(transferEnds.size(), 1U);
    EXPECT_EQ(transferEnds[0].how, How::failed);
    EXPECT_EQ(describe(transferEnds[0].error), failureTexts().at(0));
    const auto again = phone();
    EXPECT_EQ(offer(*again, "film"), 4);
    settle();
    ASSERT_EQ(started.size(), 2U);
    EXPECT_EQ(started[1].resumedFrom, 4);
}

TEST_F(ReceiverProgressTest, TellsNothingOfAFileThatIsHereAlready) {
    const auto sender = beginFilm();
    sendData(*sender, "abcdef");
    send(*sender, Row::done());
    const auto again = phone();
    EXPECT_EQ(offer(*again, "film"), 10);
    send(*again, Row::done());
    EXPECT_EQ(started.size(), 1U);
    EXPECT_EQ(transferEnds.size(), 1U);
}

TEST_F(ReceiverProgressTest, TellsOfTheEndWhenTheServiceStops) {
    const auto sender = beginFilm();
    stopAndWait();
    ASSERT_EQ(transferEnds.size(), 1U);
    EXPECT_EQ(transferEnds[0].how, How::failed);
}

TEST_F(ReceiverProgressTest, CancelsATransferAndKeepsWhatHasCome) {
    const auto sender = beginFilm();
    receiver->cancelTransfer(started.at(0).number);
    settle();
    EXPECT_TRUE(seesTheEnd(*sender));
    ASSERT_EQ(transferEnds.size(), 1U);
    EXPECT_EQ(transferEnds[0].how, How::cancelled);
    EXPECT_TRUE(failures.empty()) << failureTexts().at(0);
    EXPECT_EQ(left.size(), 1U);
    EXPECT_EQ(text(folder / "film.partial"), "film");
    EXPECT_EQ(ActiveTransfers::shared().ownerCount(), 0U);
}

TEST_F(ReceiverProgressTest, DeclinesWhatWasCancelledForADayAndThenGoesOnWithIt) {
    const auto sender = beginFilm();
    receiver->cancelTransfer(started.at(0).number);
    settle();
    EXPECT_TRUE(declinesFilm());
    const auto tablet = connectAs(tabletKey);
    EXPECT_EQ(offer(*tablet, "other"), 0) << "another phone's transfer is another one";
    const auto song = phone();
    EXPECT_EQ(offer(*song, "song", 10, "ID-2"), 0);
    pass(CancelledTransfers::lifetime - 1min);
    EXPECT_TRUE(declinesFilm());
    pass(1min);
    const auto again = phone();
    EXPECT_EQ(offer(*again, "film"), 4);
}

TEST_F(ReceiverProgressTest, NobodyIsAskedAboutWhatWasCancelled) {
    int asked = 0;
    stopAndWait();
    receiver->approveOffer = [&asked](const Receiver::Offer&) -> Task<bool> {
        ++asked;
        co_return true;
    };
    start();
    const auto sender = beginFilm();
    EXPECT_EQ(asked, 1);
    receiver->cancelTransfer(started.at(0).number);
    settle();
    EXPECT_TRUE(declinesFilm());
    EXPECT_EQ(asked, 1);
}

TEST_F(ReceiverProgressTest, CancellingTooLateOrWhatIsNotThereDoesNothing) {
    const auto sender = beginFilm();
    sendData(*sender, "abcdef");
    send(*sender, Row::done());
    receiver->cancelTransfer(started.at(0).number);
    receiver->cancelTransfer(Receiver::TransferNumber{4711});
    settle();
    ASSERT_EQ(transferEnds.size(), 1U);
    EXPECT_EQ(transferEnds[0].how, How::delivered);
    const auto again = phone();
    EXPECT_EQ(offer(*again, "film"), 10) << "it is not declined";
}

TEST_F(ReceiverProgressTest, CancellingAConnectionThatHasNoTransferDoesNothing) {
    const auto quiet = phone();
    for (std::uint64_t number = 0; number < 10; ++number) {
        receiver->cancelTransfer(Receiver::TransferNumber{number});
    }
    settle();
    EXPECT_EQ(offer(*quiet, "film"), 0);
}

} // namespace
} // namespace orlinth
