#include "OrlinthHost/Sending/Delivery.h"

#include "OrlinthHost/Sending/PhoneTimeouts.h"
#include "fakes/World.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <vector>

namespace orlinth::host {
namespace {

using fakes::ScriptedPeer;
using Row = TransportMessage;
using testing::ElementsAre;

/// How a phone behaves behind the end of a file.
enum class End { closes, resets, staysSilent, cutsTheWire };

class DeliveryTest : public testing::Test {
protected:
    DeliveryTest() { world_.files.put("/home/ann/a.txt", "0123456789"); }

    /// Takes the file once for each of these, at one port that is open all the time.
    [[nodiscard]] Task<> phone(std::vector<End> ends) {
        const std::unique_ptr<platform::Listener> listener = world_.network.listen(
            {.port = fakes::World::phonePort, .keepAlive = std::nullopt}, world_.context.get_executor());
        for (const End end : ends) {
            std::unique_ptr<platform::Stream> stream = co_await listener->accept(world_.context.get_executor());
            auto* const raw = dynamic_cast<fakes::MemoryStream*>(stream.get());
            auto wire = std::make_unique<WireConnection>(std::move(stream), world_.clock);
            NoiseHandshake handshake(NoiseRole::responder, world_.phoneKey.clone(), asBytes(kOrlinthPrologue));
            co_await exchangeAsResponder(*wire, handshake);
            auto peer = std::make_unique<ScriptedPeer>(std::move(wire), std::move(handshake).finalize());
            const auto offer = co_await peer->expect<Row::FileOffer>();
            ids_.push_back(offer.transfer_id);
            co_await peer->send(Row::resume(offer.transfer_id, ByteOffset()));
            const Bytes data = co_await peer->receiveUntilDone();
            EXPECT_EQ(toText(data), "0123456789");
            if (end == End::resets) {
                raw->abort();
            } else if (end == End::closes) {
                raw->cancel();
            } else if (end == End::cutsTheWire) {
                raw->cutWire();
            }
            kept_.push_back(std::move(peer));
        }
    }

    [[nodiscard]] Task<Delivered> send(int offersAtOnce = OffersInDoubt::atOnce) {
        DeliveryRequest request{.file = {.path = "/home/ann/a.txt",
                                         .file = {.name = "a.txt", .size = 10, .mime = "text/plain", .fingerprint = ""},
                                         .transferId = TransferId("ID")},
                                .phone = world_.phoneRecord(),
                                .ownKey = world_.computerKey,
                                .offersAtOnce = offersAtOnce,
                                .inDoubt = inDoubt_,
                                .onAgain = [this] { ++again_; }};
        return deliver(world_.system, std::move(request));
    }

    fakes::World world_;
    std::vector<std::string> ids_;
    std::vector<std::unique_ptr<ScriptedPeer>> kept_;
    OffersInDoubt inDoubt_;
    int again_ = 0;
};

TEST_F(DeliveryTest, BelievesAnOrderlyClose) {
    world_.alongside(phone({End::closes}));
    const Delivered delivered = world_.run(send());
    EXPECT_TRUE(delivered.isConfirmed);
    EXPECT_EQ(delivered.sent.bytesSent, 10);
    EXPECT_EQ(inDoubt_.count, 0);
    EXPECT_DOUBLE_EQ(world_.clock.elapsed(), 0);
}

TEST_F(DeliveryTest, OffersAgainAtOnceUnderTheSameIdWhatWasReset) {
    world_.alongside(phone({End::resets, End::closes}));
    EXPECT_TRUE(world_.run(send()).isConfirmed);
    EXPECT_THAT(ids_, ElementsAre("ID", "ID"));
    EXPECT_EQ(again_, 1);
    EXPECT_EQ(inDoubt_.count, 1);
    EXPECT_DOUBLE_EQ(world_.clock.elapsed(), 0);
}

TEST_F(DeliveryTest, SaysThatItIsInDoubtWhatWasResetEachTime) {
    world_.alongside(phone({End::resets, End::resets}));
    EXPECT_EQ(world_.failure<DeliveryInDoubt>(send()).description(), DeliveryInDoubt::text);
    EXPECT_THAT(ids_, ElementsAre("ID", "ID"));
    EXPECT_EQ(inDoubt_.count, 2);
}

TEST_F(DeliveryTest, OffersOnlyAsOftenAsItMay) {
    world_.alongside(phone({End::resets}));
    EXPECT_EQ(world_.failure<DeliveryInDoubt>(send(1)).description(), DeliveryInDoubt::text);
    EXPECT_EQ(again_, 0);
}

TEST_F(DeliveryTest, OffersAgainWhatNeverCameThrough) {
    world_.alongside(phone({End::cutsTheWire, End::closes}));
    EXPECT_TRUE(world_.run(send()).isConfirmed);
    EXPECT_THAT(ids_, ElementsAre("ID", "ID"));
    EXPECT_DOUBLE_EQ(world_.clock.elapsed(), farewellLimit.count());
}

TEST_F(DeliveryTest, TakesForDeliveredWhatAPhoneHasAcknowledgedAndNeverCloses) {
    world_.alongside(phone({End::staysSilent}));
    EXPECT_FALSE(world_.run(send()).isConfirmed);
    EXPECT_THAT(ids_, ElementsAre("ID"));
    EXPECT_DOUBLE_EQ(world_.clock.elapsed(), farewellLimit.count());
}

TEST_F(DeliveryTest, TellsOfTheDoubtAlsoWhereThePhoneIsGoneAtTheSecondOffer) {
    world_.alongside(phone({End::resets}));
    EXPECT_EQ(world_.failure<SendError>(send()).which(), SendError::Case::network);
    EXPECT_EQ(inDoubt_.count, 1);
}

} // namespace
} // namespace orlinth::host
